// Fuzzes the command-line parser: the input is a NUL-separated token list,
// parsed against the tool's own two definitions and against a section set
// that exercises value counts, choices, short names and subcommands. The
// help text is rendered each time, since it walks every definition.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "lib/argument/argument-parser.h"

namespace {

using tessera::argument::ArgumentDef;
using tessera::argument::ArgumentParser;
using tessera::argument::ArgumentSection;
using tessera::argument::ChoiceArgumentDef;
using tessera::argument::ParseResult;

std::vector<std::string> SplitTokens(const uint8_t* data, size_t size) {
  std::vector<std::string> tokens(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\0') {
      tokens.emplace_back();
    } else {
      tokens.back().push_back(static_cast<char>(data[i]));
    }
  }
  return tokens;
}

void AddToolDefinitions(ArgumentParser* parser) {
  for (const char* name : {"output_dir", "src"}) {
    ArgumentDef definition;
    definition.SetLongName(name);
    definition.SetKey(name);
    definition.SetRequired(true);
    definition.SetHelpText("help");
    parser->Add(definition);
  }
}

void AddRichDefinitions(ArgumentParser* parser) {
  ArgumentDef counted;
  counted.SetLongName("pair");
  counted.SetShortName('p');
  counted.SetKey("pair");
  counted.SetValueCount(2);
  parser->Add(counted);

  ChoiceArgumentDef choice;
  choice.SetLongName("mode");
  choice.SetKey("mode");
  choice.AddChoice("fast");
  choice.AddChoice("slow");
  choice.SetDefault("fast");
  parser->Add(choice);

  ArgumentSection* run = parser->AddSection("run");
  if (run != nullptr) {
    ArgumentDef flag;
    flag.SetLongName("flag");
    flag.SetShortName('f');
    flag.SetKey("flag");
    flag.SetValueCount(0);
    run->Add(flag);
    run->SetRemainderCount(1);
    run->SetRemainderName("file");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::vector<std::string> tokens = SplitTokens(data, size);
  for (int variant = 0; variant < 2; ++variant) {
    ArgumentParser parser;
    if (variant == 0) {
      AddToolDefinitions(&parser);
    } else {
      AddRichDefinitions(&parser);
    }
    ParseResult result;
    if (parser.Parse(tokens, &result) == 0) {
      for (const auto& entry : result.values()) (void)result.Get(entry.first);
    }
    (void)parser.ErrorText();
    std::ostringstream help;
    parser.PrintHelp(result.command(), help);
  }
  return 0;
}
