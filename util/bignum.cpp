// The limb arrays are the one place where memory is managed by hand: each
// block is one 32-bit reference count followed by `capacity` limbs, and
// limbs_ points just past the count. Blocks are wiped before they are freed.
#include "util/bignum.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "util/error.h"

namespace util {

namespace {

// Most sharers an array takes; a copy beyond that gets an array of its own,
// so a count above this (or 0) can only mean a corrupted block.
constexpr uint32_t kMaxSharers = 1000;

// Process-wide like the allocator whose frees it watches; set by unit tests only.
BigNum::FreeObserver g_free_observer = nullptr;

uint32_t& count_of(uint32_t* limbs) { return limbs[-1]; }

// a * b + carry + r, stored low half into r; returns the high half. The sum
// never exceeds (2^32 - 1)^2 + 2 * (2^32 - 1) = 2^64 - 1.
uint32_t multiply_add(uint32_t a, uint32_t b, uint32_t carry, uint32_t& r) {
  uint64_t t = uint64_t{a} * b + carry + r;
  r = static_cast<uint32_t>(t);
  return static_cast<uint32_t>(t >> 32);
}

int bit_length(uint32_t v) {
  int bits = 0;
  while (v != 0) {
    ++bits;
    v >>= 1;
  }
  return bits;
}

}  // namespace

uint32_t* BigNum::allocate(uint64_t n) {
  uint64_t limbs = std::max<uint64_t>(n, 1);
  if (limbs > (SIZE_MAX / sizeof(uint32_t)) - 1) throw std::bad_alloc();
  auto* block = static_cast<uint32_t*>(::operator new((limbs + 1) * sizeof(uint32_t)));
  block[0] = 1;
  std::memset(block + 1, 0, limbs * sizeof(uint32_t));
  return block + 1;
}

void BigNum::wipe_and_free(uint32_t* limbs, uint64_t capacity) {
  // Volatile stores: the compiler must not drop the wipe as dead before the free.
  volatile uint32_t* p = limbs;
  for (uint64_t i = 0; i < capacity; ++i) p[i] = 0;
  if (g_free_observer != nullptr) g_free_observer(limbs, capacity);
  ::operator delete(limbs - 1);
}

void BigNum::set_free_observer_for_testing(FreeObserver observer) {
  g_free_observer = observer;
}

BigNum::BigNum() : limbs_(allocate(1)), size_(0), capacity_(1) {}

BigNum::BigNum(uint32_t value) : limbs_(allocate(1)), size_(0), capacity_(1) {
  limbs_[0] = value;
  size_ = value != 0 ? 1 : 0;
}

BigNum::BigNum(const BigNum& other)
    : limbs_(other.limbs_), size_(other.size_), capacity_(other.capacity_) {
  uint32_t count = count_of(limbs_);
  if (count == 0 || count > kMaxSharers) std::abort();
  if (count == kMaxSharers) {
    limbs_ = allocate(size_);
    capacity_ = std::max<uint64_t>(size_, 1);
    std::copy(other.limbs_, other.limbs_ + size_, limbs_);
  } else {
    count_of(limbs_) = count + 1;
  }
}

BigNum& BigNum::operator=(const BigNum& other) {
  if (this != &other && limbs_ != other.limbs_) {
    BigNum copy(other);  // takes its share first
    release();
    limbs_ = copy.limbs_;
    size_ = copy.size_;
    capacity_ = copy.capacity_;
    copy.limbs_ = nullptr;  // ownership moved to *this
  } else {
    size_ = other.size_;
    capacity_ = other.capacity_;
  }
  return *this;
}

BigNum::~BigNum() { release(); }

void BigNum::release() {
  if (limbs_ == nullptr) return;
  uint32_t& count = count_of(limbs_);
  if (count == 0 || count > kMaxSharers) std::abort();
  if (--count == 0) wipe_and_free(limbs_, capacity_);
  limbs_ = nullptr;
}

void BigNum::grow(uint64_t n) {
  if (n < size_) assert_failed("Bad reallocation in BigNum");
  if (count_of(limbs_) > 1) {
    uint32_t* fresh = allocate(n);
    std::copy(limbs_, limbs_ + size_, fresh);
    --count_of(limbs_);
    limbs_ = fresh;
    capacity_ = std::max<uint64_t>(n, 1);
  } else if (capacity_ >= n) {
    std::fill(limbs_ + size_, limbs_ + n, 0u);
  } else {
    uint32_t* fresh = allocate(n);
    std::copy(limbs_, limbs_ + size_, fresh);
    wipe_and_free(limbs_, capacity_);
    limbs_ = fresh;
    capacity_ = n;
  }
  size_ = n;
}

void BigNum::normalise() {
  while (size_ > 0 && limbs_[size_ - 1] == 0) --size_;
}

uint32_t BigNum::limb(uint64_t i) const {
  if (i >= size_) assert_failed("BigNum limb index out of range");
  return limbs_[i];
}

uint32_t BigNum::share_count() const { return count_of(limbs_); }

bool BigNum::operator==(const BigNum& other) const {
  return size_ == other.size_ && std::equal(limbs_, limbs_ + size_, other.limbs_);
}

BigNum operator+(const BigNum& a, const BigNum& b) {
  const BigNum& longer = a.size_ >= b.size_ ? a : b;
  const BigNum& shorter = a.size_ >= b.size_ ? b : a;
  uint64_t n = longer.size_;
  auto top_bit = [](const BigNum& v) {
    return v.size_ > 0 && (v.limbs_[v.size_ - 1] & 0x80000000u) != 0;
  };
  // Room for a carry out of the top limb only where one can occur.
  bool extra = a.size_ == b.size_ ? (n == 0 || top_bit(a) || top_bit(b)) : top_bit(longer);
  BigNum result;
  result.grow(n + (extra ? 1 : 0));
  uint64_t carry = 0;
  for (uint64_t i = 0; i < n; ++i) {
    uint64_t t = uint64_t{longer.limbs_[i]} + (i < shorter.size_ ? shorter.limbs_[i] : 0) + carry;
    result.limbs_[i] = static_cast<uint32_t>(t);
    carry = t >> 32;
  }
  if (carry != 0) result.limbs_[n] = static_cast<uint32_t>(carry);
  result.normalise();
  return result;
}

BigNum operator*(const BigNum& a, const BigNum& b) {
  BigNum result;
  result.grow(a.size_ + b.size_);
  for (uint64_t i = 0; i < a.size_; ++i) {
    uint32_t carry = 0;
    for (uint64_t j = 0; j < b.size_; ++j) {
      carry = multiply_add(a.limbs_[i], b.limbs_[j], carry, result.limbs_[i + j]);
    }
    if (result.limbs_[i + b.size_] != 0) assert_failed("Multiplication error in BigNum");
    result.limbs_[i + b.size_] = carry;
  }
  result.normalise();
  return result;
}

void bn_get_data(const BigNum& value, uint8_t* buffer, size_t& length) {
  uint64_t needed = 4 * value.size_;
  if (length < needed) {
    assert_failed("Buffer given to bn_get_data is too small (wanted " + std::to_string(needed) +
                  ")");
  }
  // Right-aligned, most significant byte first.
  uint8_t* p = buffer + (length - needed);
  for (uint64_t i = value.size_; i-- > 0;) {
    uint32_t limb = value.limbs_[i];
    *p++ = static_cast<uint8_t>(limb >> 24);
    *p++ = static_cast<uint8_t>(limb >> 16);
    *p++ = static_cast<uint8_t>(limb >> 8);
    *p++ = static_cast<uint8_t>(limb);
  }
  size_t start = length - needed;
  while (start < length && buffer[start] == 0) ++start;
  size_t significant = length - start;
  if (significant > 0) std::memmove(buffer, buffer + start, significant);
  if (length > significant) std::memset(buffer + significant, 0, length - significant);
  length = significant;
}

void bn_set_data(BigNum& value, const uint8_t* bytes, size_t count) {
  // Starting from size 0 gives a private array of zeros whatever the old value
  // was, so the bytes alone make the result.
  value.size_ = 0;
  value.grow((static_cast<uint64_t>(count) + 3) / 4);
  for (size_t k = 0; k < count; ++k) {
    uint32_t& limb = value.limbs_[(count - 1 - k) / 4];
    limb = (limb << 8) | bytes[k];
  }
  value.normalise();
}

std::string bn_to_string(const BigNum& value) {
  BigNum copy(value);
  std::string reversed;
  do {
    uint32_t digit = 0;
    if (copy.size_ != 0) {
      copy.grow(copy.size_);
      uint64_t remainder = 0;
      for (uint64_t i = copy.size_; i-- > 0;) {
        uint64_t t = (remainder << 32) | copy.limbs_[i];
        copy.limbs_[i] = static_cast<uint32_t>(t / 10);
        remainder = t % 10;
      }
      copy.normalise();
      digit = static_cast<uint32_t>(remainder);
    }
    reversed += static_cast<char>('0' + digit);
  } while (copy.size_ != 0);
  return std::string(reversed.rbegin(), reversed.rend());
}

uint64_t bn_to_uint64(const BigNum& value) {
  if (value.size_ == 0) return 0;
  uint64_t bits = 32 * (value.size_ - 1) + bit_length(value.limbs_[value.size_ - 1]);
  if (bits > 64) {
    throw util::ERange("Cannot fit " + std::to_string(bits) + " bits in uint64_t");
  }
  uint64_t result = value.limbs_[0];
  if (value.size_ > 1) result |= uint64_t{value.limbs_[1]} << 32;
  return result;
}

}  // namespace util
