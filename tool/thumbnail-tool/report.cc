#include "tool/thumbnail-tool/report.h"

#include <json/writer.h>

#include "lib/thumbnail/thumbnail-helper.h"
#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace tool {

Json::Value BuildReport(const std::string& src, const std::string& output_dir) {
  Json::Value report;  // null until a size succeeds
  thumbnail::ThumbnailHelper helper(output_dir);
  helper.SetSrc(src);
  for (thumbnail::ThumbnailSize size : thumbnail::AllSizes()) {
    const std::string name = thumbnail::SizeName(size);
    helper.SetSize(size);
    const thumbnail::ThumbnailResult result = helper.GenerateForSize();
    if (result.has_path()) report[name] = Json::Value(result.path());
  }
  return report;
}

std::string ReportText(const Json::Value& report) {
  // The styled layout (three-space indentation, sorted keys) is the
  // report's documented form, which the newer builders do not reproduce.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::StyledWriter writer;
  return writer.write(report);
#pragma GCC diagnostic pop
}

}  // namespace tool
}  // namespace tessera
