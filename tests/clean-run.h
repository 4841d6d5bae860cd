// The promises every run of the tool keeps, whatever its input: it ends
// normally with status 0, prints one JSON report (null or an object of size
// name -> path) and nothing else on standard output, raises no sanitizer
// report, and leaves in the output directory exactly the files it reports.
#ifndef TESSERA_TESTS_CLEAN_RUN_H_
#define TESSERA_TESTS_CLEAN_RUN_H_

#include <json/json.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>

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

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_CLEAN_RUN_H_
