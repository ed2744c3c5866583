// Text helpers for comparing export documents in the end-to-end tests: the
// run's time stamp masked, and expected documents cut from a larger
// hand-written one by element id. They work on lines and know only the
// indentation rules of the document (two blanks per level, one element start
// per line), so they never rely on the exporter's own code.
#ifndef TALVIX_TESTS_SUPPORT_E2E_DOCUMENT_H_
#define TALVIX_TESTS_SUPPORT_E2E_DOCUMENT_H_

#include <ctime>
#include <string>
#include <vector>

namespace support {

// `document` with the value of the Meta element's timestamp attribute
// replaced by "TIMESTAMP". A document without the attribute (a run that
// failed before its header) is returned unchanged. The value must read
// YYYY-MM-DD-THH:MM:SS and lie between `earliest` and `latest` (seconds
// since 1970, UTC); otherwise `problem` says what is wrong with it.
std::string mask_timestamp(const std::string& document, std::time_t earliest,
                           std::time_t latest, std::string& problem);

// The lines of the Object element whose id attribute is written as `id`
// (already escaped), from its start tag to its end tag at the same
// indentation, each with its line feed. Throws std::runtime_error when the
// element is not there.
std::string element(const std::string& document, const std::string& id);

// `document` without the elements of `ids`.
std::string without(const std::string& document, const std::vector<std::string>& ids);

// `document` with `lines` inserted right after the element `id`.
std::string insert_after(const std::string& document, const std::string& id,
                         const std::string& lines);

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_E2E_DOCUMENT_H_
