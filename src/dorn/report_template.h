// The HTML page of a build report, without the record that belongs in it.
//
// The texts are constants of the program, which cmake/embed_page.cmake makes from the files of dorn/report. Any thread.
#ifndef KESTRUN_DORN_REPORT_TEMPLATE_H_
#define KESTRUN_DORN_REPORT_TEMPLATE_H_

#include <string_view>

namespace kestrun::dorn {

struct ReportTemplate {
  std::string_view head;  // ends where the record begins, inside a script element of type application/json
  std::string_view tail;
};

ReportTemplate GetReportTemplate();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_REPORT_TEMPLATE_H_
