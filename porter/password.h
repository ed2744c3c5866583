// Where the password comes from when -P gives none: the controlling terminal,
// asked with echo switched off, or a password file.
#ifndef TALVIX_PORTER_PASSWORD_H_
#define TALVIX_PORTER_PASSWORD_H_

#include <cstddef>
#include <string>

namespace porter {

// Size of the password buffer the command line passes.
inline constexpr size_t kPasswordBufferSize = 64;

// Writes `prompt` to the controlling terminal (/dev/tty, not the standard
// streams, which may be redirected), reads one line with echo off and line
// input on, writes "\n" (the Enter key was not echoed) and puts the
// terminal's mode back as it was.
//
// On success returns nullptr and `buffer` holds the line up to its first
// NUL, LF or CR as a zero-terminated text: at most size - 1 characters, so a
// 63-character password fits the 64-byte buffer.
//
// On failure returns one of these static texts (valid for the life of the
// process) and the content of `buffer` is unspecified:
//   "Could not open CONIN$"   no controlling terminal to read from
//   "Could not open CONOUT$"  the terminal cannot be opened for output
//   "GetConsoleMode failed"   the terminal mode cannot be read
//   "SetConsoleMode failed"   the mode cannot be changed or restored
//   "Could not write"         the prompt or the line end could not be written
//   "Could not read"          reading the line failed
//   "read returned 0"         end of input before any character (Ctrl-D)
//   "Password too long"       the line does not fit: `size` characters or
//                             more before its end. The line is rejected, not
//                             cut, and its rest is read from the terminal and
//                             discarded so that it does not reach the next
//                             reader of the terminal (e.g. the shell); the
//                             buffer is zeroed.
// Once the mode was changed it is restored on every path, and also when
// SIGINT, SIGTERM, SIGHUP or SIGQUIT arrives during the prompt (Ctrl-C): the
// mode is put back, then the signal takes the course it had before the
// prompt (by default it ends the process). `size` must be at
// least 1.
const char* read_console_password(char* buffer, size_t size, const char* prompt);

// The longest first line a password file may have, in bytes.
inline constexpr size_t kPasswordFileLineLimit = 4096;

// The password kept in the file `path`: its first line without the line end
// ("\n" or "\r\n"). The file must be a regular file that neither its group
// nor others may read. Throws util::EFatal:
//   "Error reading password file <path>: <system text>"   cannot be opened or read
//   "Password file <path> is not a regular file"
//   "Password file <path> may be read by others (mode 0644): allow its owner
//    alone, e.g. chmod 600 <path>"                        (one line; the file's mode)
//   "Password file <path>: its first line is longer than 4096 bytes"
// What was read is wiped before the call returns or throws.
std::string read_password_file(const std::string& path);

// Checks that `path` names a regular file that neither its group nor others
// may read, as for a password file. Throws util::EFatal with the texts of
// read_password_file(), the file called `what` ("password file" above).
void check_private_file(const std::string& path, const std::string& what);

// Overwrites the characters of `text` with zeros, in a way the compiler may
// not leave out, and empties it.
void wipe_password(std::string& text);

}  // namespace porter

#endif  // TALVIX_PORTER_PASSWORD_H_
