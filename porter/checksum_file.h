// The checksum file of a finished export: "<file>.sha256" beside the
// document, one line in sha256sum's format (digest, two blanks, the
// document's base name), so that "sha256sum -c" run in the document's
// folder checks it.
#ifndef TALVIX_PORTER_CHECKSUM_FILE_H_
#define TALVIX_PORTER_CHECKSUM_FILE_H_

#include <string>

namespace porter {

// Reads the closed document `path` again and replaces "<path>.sha256"
// atomically (a temporary file "<path>.sha256.tmp-XXXXXX", renamed over it).
// The document is read back rather than hashed as it is written because
// with -z the bytes on disk come out of zlib (or its thread), not out of our
// writes, and the file at the name, after an atomic rename, is exactly what
// "sha256sum -c" will read. Throws util::EFatal: "Cannot write a checksum of
// <path>: not a regular file" (a FIFO or device target), "Error reading:
// <path>: <system text>", "Error writing: <path>.sha256: <system text>";
// after a failure an earlier checksum file is as it was and no temporary
// file is left.
void write_checksum_file(const std::string& path);

}  // namespace porter

#endif  // TALVIX_PORTER_CHECKSUM_FILE_H_
