// BigNum: the tool's arbitrary-precision non-negative integer.
//
// Value semantics over a shared, copy-on-write limb array (32-bit limbs, least
// significant first). Limb memory is overwritten with zeros before it is
// returned to the allocator, both on release and when an array is replaced by
// a larger one. Values sharing an array must not be used from several threads.
#ifndef TALVIX_UTIL_BIGNUM_H_
#define TALVIX_UTIL_BIGNUM_H_

#include <cstddef>
#include <cstdint>
#include <string>

class BigNumTestPeer;

namespace util {

class BigNum {
 public:
  BigNum();                    // 0: size 0, capacity 1
  BigNum(uint32_t value);      // NOLINT(runtime/explicit): numbers convert freely
  BigNum(const BigNum& other);  // shares the array
  BigNum& operator=(const BigNum& other);
  ~BigNum();

  bool operator==(const BigNum& other) const;
  bool operator!=(const BigNum& other) const { return !(*this == other); }
  friend BigNum operator+(const BigNum& a, const BigNum& b);
  friend BigNum operator*(const BigNum& a, const BigNum& b);

  // Number of limbs in use (normalised: 0 has size 0) and allocated.
  uint64_t size() const { return size_; }
  uint64_t capacity() const { return capacity_; }
  // Limb i (least significant first); i must be below size().
  uint32_t limb(uint64_t i) const;
  // How many values share this value's array (1 when private). Copying a value
  // whose array already has 1000 sharers gives the copy a private array.
  uint32_t share_count() const;

  // Test hook: when set, called with every limb array (all `capacity` limbs)
  // right before it is returned to the allocator, after it has been wiped.
  // nullptr removes the hook. Not thread-safe; for tests only.
  using FreeObserver = void (*)(const uint32_t* limbs, uint64_t capacity);
  static void set_free_observer_for_testing(FreeObserver observer);

  // Big-endian bytes without leading zeros into buffer; `length` is the buffer
  // size on entry (at least 4 * size(), else an assertion ends the process)
  // and the count of significant bytes on return. The rest is zero-filled.
  friend void bn_get_data(const BigNum& value, uint8_t* buffer, size_t& length);
  // Sets the value from `count` big-endian bytes.
  friend void bn_set_data(BigNum& value, const uint8_t* bytes, size_t count);
  // Decimal text; 0 gives "0".
  friend std::string bn_to_string(const BigNum& value);
  // Throws util::ERange "Cannot fit <bits> bits in uint64_t" above 64 bits.
  friend uint64_t bn_to_uint64(const BigNum& value);

 private:
  friend class ::BigNumTestPeer;  // unit tests reach grow() and the count word

  void grow(uint64_t n);  // bn_grow: private array of at least n limbs, size n
  void normalise();
  void release();
  // A new array of max(n, 1) limbs, all zero, with a count of 1.
  static uint32_t* allocate(uint64_t n);
  // Wipes `capacity` limbs and frees the array.
  static void wipe_and_free(uint32_t* limbs, uint64_t capacity);

  uint32_t* limbs_;  // the count word lives directly in front of limbs_[0]
  uint64_t size_;
  uint64_t capacity_;
};

void bn_get_data(const BigNum& value, uint8_t* buffer, size_t& length);
void bn_set_data(BigNum& value, const uint8_t* bytes, size_t count);
std::string bn_to_string(const BigNum& value);
uint64_t bn_to_uint64(const BigNum& value);

}  // namespace util

#endif  // TALVIX_UTIL_BIGNUM_H_
