// thumbnail-tool --output_dir <dir> --src <file>
//
// Writes up to four JPEG thumbnails of the source into the output directory
// and prints, on standard output only, the JSON report of the files made.
// Exit status 0 after a report (even "null"), -1 for a rejected command line.
#include <iostream>
#include <string>
#include <vector>

#include "lib/argument/argument-parser.h"
#include "lib/file/unreported-files.h"
#include "lib/thumbnail/thumbnail-job.h"
#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/utility/run-deadline.h"
#include "tool/thumbnail-tool/process-limits.h"
#include "tool/thumbnail-tool/report.h"

namespace {

void RegisterArguments(tessera::argument::ArgumentParser* parser) {
  struct Definition {
    const char* name;
    const char* help;
  };
  static const Definition kDefinitions[] = {
      {"output_dir", "The path to save thumbnail"},
      {"src", "The src image to generate thumbnail"},
  };
  for (const Definition& d : kDefinitions) {
    tessera::argument::ArgumentDef definition;
    definition.SetLongName(d.name);
    definition.SetKey(d.name);
    definition.SetRequired(true);
    definition.SetHelpText(d.help);
    parser->Add(definition);
  }
}

// The parser accepts an option without values (any count is allowed); the
// tool needs one, so it reports that the way the parser reports a count.
std::string MissingValueReason(const tessera::argument::ParseResult& result) {
  for (const char* key : {"output_dir", "src"}) {
    if (result.Get(key).empty()) {
      return std::string("Argument '") + key + "': Expect 1 arguments, but threre are 0";
    }
  }
  return std::string();
}

// The files the report names are the caller's from the moment it has the
// report: a termination after that must leave them.
void HandOverReportedFiles(const Json::Value& report) {
  if (!report.isObject()) return;
  for (const std::string& name : report.getMemberNames()) {
    if (report[name].isString()) tessera::file::ForgetUnreportedFile(report[name].asString());
  }
}

}  // namespace

int main(int argc, char** argv) {
  tessera::tool::ApplyProcessLimits();
  // Before any file is made: a run stopped by SIGTERM, SIGINT or SIGHUP
  // leaves none of the files it has not reported.
  tessera::file::RemoveUnreportedFilesOnTermination();
  tessera::argument::ArgumentParser parser;
  tessera::argument::ParseResult parsed;
  RegisterArguments(&parser);
  const std::vector<std::string> tokens(argv + (argc > 0 ? 1 : 0), argv + argc);

  std::string reason;
  if (parser.Parse(tokens, &parsed) < 0) {
    reason = parser.ErrorText();
  } else {
    reason = MissingValueReason(parsed);
  }
  if (!reason.empty()) {
    std::cerr << "Argument error. (reason: " << reason << ")" << std::endl;
    parser.PrintHelp("", std::cout);
    return -1;
  }

  const std::string src = parsed.Get("src").front();
  const std::string output_dir = parsed.Get("output_dir").front();
  tessera::utility::SetRunBudget(tessera::thumbnail::kRunBudget);
  const Json::Value report = tessera::tool::BuildReport(src, output_dir);
  std::cout << tessera::tool::ReportText(report) << std::endl;
  // Flushed by the endl: only a report that went out hands its files over.
  if (std::cout) HandOverReportedFiles(report);

  // A job abandoned at its time limit may still be running: returning would
  // run static destructors under it.
  if (tessera::thumbnail::HasAbandonedJobs()) {
    tessera::thumbnail::ExitWithAbandonedJobs(0);
  }
  return 0;
}
