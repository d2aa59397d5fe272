// A build record as one HTML page: style, scripts and record are all in it, and it loads nothing.
//
// Any thread may call these functions.
#ifndef KESTRUN_DORN_REPORT_PAGE_H_
#define KESTRUN_DORN_REPORT_PAGE_H_

#include <string>
#include <string_view>

#include "runtime/files/path.h"

namespace kestrun::dorn {

// The page for a record, which is JSON text. Whatever bytes the record holds, they neither end the element that holds
// them nor make the page anything but valid UTF-8; what the record says stays the same. Bytes that are no UTF-8 become
// U+FFFD. A record that is no JSON gives a page that says so.
std::string WriteReportPage(std::string_view record);

// Writes the page of a record to a file, as WriteOutputFile does.
bool SaveReportPage(std::string_view record, const Path& pageFile, std::string& error);

// The same for a record that is in a file. False also if the text there is none.
bool SaveReportPageOf(const Path& recordFile, const Path& pageFile, std::string& error);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_REPORT_PAGE_H_
