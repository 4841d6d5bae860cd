// The tool's result report: a JSON object from size name to thumbnail path.
#ifndef TESSERA_TOOL_THUMBNAIL_TOOL_REPORT_H_
#define TESSERA_TOOL_THUMBNAIL_TOOL_REPORT_H_

#include <string>

#include <json/value.h>

namespace tessera {
namespace tool {

// Generates every size of `src` into `output_dir` (both UTF-8, as given on
// the command line) and returns the report: a member SizeName -> path for
// each size that produced a file, or a null value when none did. Failed
// sizes leave no trace in it. Exceptions other than the generator's own
// pass through. Main thread only.
Json::Value BuildReport(const std::string& src, const std::string& output_dir);

// The report's text as printed: JsonCpp's styled layout, which ends in a
// newline ("null\n" for a null report).
std::string ReportText(const Json::Value& report);

}  // namespace tool
}  // namespace tessera

#endif  // TESSERA_TOOL_THUMBNAIL_TOOL_REPORT_H_
