// The promises every run of the tool keeps, whatever its input: it ends
// normally with status 0, prints one JSON report (null or an object of size
// name -> path) and nothing else on standard output, raises no sanitizer
// report, and leaves in the output directory exactly the files it reports.
#ifndef TESSERA_TESTS_CLEAN_RUN_H_
#define TESSERA_TESTS_CLEAN_RUN_H_

#include <json/json.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "lib/thumbnail/testing/image-size.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace testing {

inline std::set<std::string> ListNames(const std::string& dir) {
  std::set<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// Checks every promise of a run; returns the number of thumbnails reported
// (-1 when the run itself broke a promise). `out_dir` may be empty when the
// directory does not exist.
inline int ExpectCleanRun(const ProcessResult& run, const std::string& out_dir) {
  EXPECT_TRUE(run.exited) << "ended by signal " << run.status << "\n" << run.err;
  EXPECT_EQ(run.status, 0) << run.err;
  for (const char* alarm : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
    EXPECT_EQ(run.err.find(alarm), std::string::npos) << run.err;
  }
  Json::Value report;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream text(run.out);
  if (!Json::parseFromStream(builder, text, &report, &errors)) {
    ADD_FAILURE() << "standard output is not one JSON document: " << run.out;
    return -1;
  }
  EXPECT_TRUE(report.isNull() || report.isObject()) << run.out;
  std::set<std::string> reported;
  if (report.isObject()) {
    static const std::set<std::string> kSizes = {"small", "small-medium", "medium", "large"};
    for (const std::string& key : report.getMemberNames()) {
      EXPECT_EQ(kSizes.count(key), 1u) << key;
      EXPECT_TRUE(report[key].isString()) << run.out;
      if (!report[key].isString()) continue;
      const std::string path = report[key].asString();
      struct stat st;
      EXPECT_TRUE(stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) << path;
      const size_t slash = path.rfind('/');
      reported.insert(slash == std::string::npos ? path : path.substr(slash + 1));
    }
  }
  if (!out_dir.empty()) {
    EXPECT_EQ(ListNames(out_dir), reported) << run.out;
  }
  return run.exited && run.status == 0 ? static_cast<int>(reported.size()) : -1;
}

// Checks a clean run that made all four sizes of a `width` x `height`
// source: the report's exact text (sizes sorted by name, three-space
// indentation), each file named by eight random characters in `out_dir`, and
// each a JPEG whose shorter side is its size's edge (the source's when that is
// smaller: never enlarged), upright at the source's shape. Returns the paths
// by size name.
inline std::map<std::string, std::string> ExpectFourThumbnails(const ProcessResult& run, const std::string& out_dir,
                                                              int width, int height) {
  EXPECT_EQ(ExpectCleanRun(run, out_dir), 4) << run.out;
  static const std::pair<const char*, int> kEdges[] = {
      {"large", 1280}, {"medium", 320}, {"small", 120}, {"small-medium", 240}};
  std::map<std::string, std::string> paths;
  std::string expected = "{\n";
  for (const auto& [name, edge] : kEdges) {
    SCOPED_TRACE(name);
    const std::string key = std::string("   \"") + name + "\" : \"";
    const size_t at = run.out.find(key);
    if (at == std::string::npos) continue;
    const size_t from = at + key.size();
    const std::string path = run.out.substr(from, run.out.find('"', from) - from);
    EXPECT_EQ(path.rfind(out_dir + "/", 0), 0u) << path;
    EXPECT_EQ(path.size(), out_dir.size() + 9) << path;
    expected += key + path + (paths.size() < 3 ? "\",\n" : "\"\n");
    paths[name] = path;

    const thumbnail::testing::ImageSize size = thumbnail::testing::ReadImageSize(path);
    EXPECT_TRUE(size.is_jpeg);
    const double scale = static_cast<double>(std::min(edge, std::min(width, height))) / std::min(width, height);
    EXPECT_EQ(std::min(size.width, size.height), std::min(edge, std::min(width, height)));
    EXPECT_NEAR(size.width, width * scale, 1.0);
    EXPECT_NEAR(size.height, height * scale, 1.0);
  }
  EXPECT_EQ(run.out, expected + "}\n\n");
  return paths;
}

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_CLEAN_RUN_H_
