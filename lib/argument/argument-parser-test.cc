#include "lib/argument/argument-parser.h"

#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace tessera {
namespace argument {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Splits a command line at spaces; no quoting (tests that need an empty
// token build the vector themselves).
std::vector<std::string> Tokens(const std::string& line) {
  std::vector<std::string> tokens;
  std::istringstream in(line);
  std::string token;
  while (in >> token) tokens.push_back(token);
  return tokens;
}

ArgumentDef Def(const std::string& long_name, bool required, const std::string& help = "") {
  ArgumentDef def;
  def.SetLongName(long_name);
  def.SetKey(long_name);
  def.SetRequired(required);
  def.SetHelpText(help);
  return def;
}

ChoiceArgumentDef ModeDef() {
  ChoiceArgumentDef mode;
  mode.SetLongName("mode");
  mode.SetKey("mode");
  mode.AddChoice("fast");
  mode.AddChoice("slow");
  return mode;
}

// One definition of each kind, none required: "src" (-s, any number of
// values), "mode" (choices fast/slow) and "pair" (exactly two values).
class ParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ArgumentDef src = Def("src", false);
    src.SetShortName('s');
    ArgumentDef pair = Def("pair", false);
    pair.SetValueCount(2);
    ASSERT_EQ(0, parser_.Add(src));
    ASSERT_EQ(0, parser_.Add(ModeDef()));
    ASSERT_EQ(0, parser_.Add(pair));
  }

  int Parse(const std::string& line) { return parser_.Parse(Tokens(line), &result_); }

  ArgumentParser parser_;
  ParseResult result_;
};

TEST_F(ParserTest, CollectsValuesUpToTheNextOption) {
  // Spaced and inline values share one list; "=" splits at the first one;
  // inline values skip the choice check; "pair" stops after two values.
  ASSERT_EQ(0, Parse("--src a b --src=c=d --mode=bogus --pair x y z"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a", "b", "c=d"));
  EXPECT_THAT(result_.Get("mode"), ElementsAre("bogus"));
  EXPECT_THAT(result_.Get("pair"), ElementsAre("x", "y"));
  EXPECT_THAT(result_.positional(), ElementsAre("z"));

  // A first "--mode" without a value leaves room for one; "--src=" has no
  // inline value and takes the next token.
  ASSERT_EQ(0, Parse("--mode --mode slow --src= a"));
  EXPECT_THAT(result_.Get("mode"), ElementsAre("slow"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a"));

  // Present without values; absent keys all share one empty list.
  ASSERT_EQ(0, Parse("--src"));
  EXPECT_TRUE(result_.Has("src"));
  EXPECT_THAT(result_.Get("src"), IsEmpty());
  EXPECT_FALSE(result_.Has("mode"));
  EXPECT_EQ(&result_.Get("mode"), &result_.Get("other"));

  // Help is stored, not acted on.
  ASSERT_EQ(0, Parse("-h x --help y"));
  EXPECT_THAT(result_.Get("help"), ElementsAre("x", "y"));
}

TEST_F(ParserTest, DashAndDoubleDashArePlainTokens) {
  ASSERT_EQ(0, Parse("- x"));
  EXPECT_THAT(result_.positional(), ElementsAre("-", "x"));
  ASSERT_EQ(0, parser_.Parse({"--", "---x", ""}, &result_));
  EXPECT_THAT(result_.positional(), ElementsAre("--", "---x", ""));
  // After an option they are its values.
  ASSERT_EQ(0, Parse("-s - -- ---x"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("-", "--", "---x"));
  EXPECT_THAT(result_.positional(), IsEmpty());
}

TEST_F(ParserTest, EachFailureAddsOneExactMessage) {
  struct Case {
    const char* line;
    const char* message;
  };
  const Case cases[] = {
      {"-x", "Argument '-x': '-x' is not a valid argument\n"},
      {"--SRC a", "Argument '--SRC': '--SRC' is not a valid argument\n"},
      {"--sr a", "Argument '--sr': '--sr' is not a valid argument\n"},
      {"--=a", "Argument '--=a': '--=a' is not a valid argument\n"},
      // No clustering and no attached short values.
      {"-sh", "Argument '-sh': '-sh' is not a valid argument\n"},
      {"-s=a", "Argument '-s=a': '-s=a' is not a valid argument\n"},
      {"--mode bogus", "Argument 'mode': 'bogus' is not a valid argument\n"},
      {"--mode Fast", "Argument 'mode': 'Fast' is not a valid argument\n"},
      {"--mode", "Argument 'mode': Expect 1 arguments, but threre are 0"},
      {"--mode fast --mode slow", "Argument 'mode': Expect 1 argument(s)\n"},
      {"--pair a", "Argument 'pair': Expect 2 arguments, but threre are 1"},
      {"--pair a b --pair c", "Argument 'pair': Expect 2 argument(s)\n"},
      // The inline form gets past the count, not past the final check.
      {"--pair a b --pair=c", "Argument 'pair': Expect 2 arguments, but threre are 3"},
      {"a.jpg --src b.jpg", "Global: '--src' is not a valid positional argument"},
      // "--" does not end the options.
      {"-- --src a", "Global: '--src' is not a valid positional argument"},
  };
  std::string expected;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(-1, Parse(c.line));
    expected += c.message;
    EXPECT_EQ(expected, parser_.ErrorText());
    // A success in between writes nothing.
    EXPECT_EQ(0, Parse("--src a"));
  }
}

// The parser as the tool sets it up: two required long options.
class ToolParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, parser_.Add(Def("output_dir", true, "The path to save thumbnail")));
    ASSERT_EQ(0, parser_.Add(Def("src", true, "The src image to generate thumbnail")));
  }

  ArgumentParser parser_;
  ParseResult result_;
};

TEST_F(ToolParserTest, ReportsTheFirstMissingRequiredArgument) {
  EXPECT_EQ(-1, parser_.Parse({}, &result_));
  EXPECT_EQ(-1, parser_.Parse(Tokens("--src a.jpg"), &result_));
  EXPECT_EQ(-1, parser_.Parse(Tokens("--output_dir out --help"), &result_));
  EXPECT_EQ(
      "Argument 'output_dir': Required argument"
      "Argument 'output_dir': Required argument"
      "Argument 'src': Required argument",
      parser_.ErrorText());
  ASSERT_EQ(0, parser_.Parse(Tokens("--src a.jpg b.jpg --output_dir out"), &result_));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a.jpg", "b.jpg"));
}

TEST_F(ToolParserTest, PrintsTheHelpTextByteForByte) {
  std::time_t now = std::time(nullptr);
  std::tm local = *std::localtime(&now);
  const std::string year = std::to_string(local.tm_year + 1900);

  std::ostringstream out;
  parser_.PrintHelp("", out);
  EXPECT_EQ("Copyright (c) 2003-" + year + " Tessera contributors. All rights reserved.\n"
            "\n"
            "Usage: PROGRAM --output_dir --src [-h, --help] \n"
            "\n"
            "Required arguments: \n"
            "    --output_dir\tThe path to save thumbnail\n"
            "    --src\tThe src image to generate thumbnail\n"
            "\n"
            "Optional arguments: \n"
            "    -h, --help\tShow this help message\n"
            "\n"
            "\n",
            out.str());
}

TEST(ArgumentDefTest, InvalidNamesAreIgnoredAndInvalidDefinitionsRefused) {
  ArgumentDef def;
  def.SetKey("name");
  def.SetLongName("--name");
  def.SetShortName('-');
  EXPECT_FALSE(def.IsValid());
  ArgumentSection section;
  EXPECT_EQ(-1, section.Add(def));

  def.SetShortName('n');
  EXPECT_EQ(0, section.Add(def));
  def.SetKey("");
  EXPECT_EQ(-1, section.Add(def));
  // The section keeps its own copy.
  ASSERT_EQ(1u, section.definitions().size());
  EXPECT_EQ("name", section.definitions()[0]->key());
  EXPECT_EQ("[-n]", section.definitions()[0]->UsageToken());
}

TEST(ArgumentDefTest, ChoiceDefaultJoinsTheChoicesAndClonesKeepThem) {
  ChoiceArgumentDef mode = ModeDef();
  mode.SetDefault("auto");
  std::unique_ptr<ArgumentDef> copy = mode.Clone();
  EXPECT_TRUE(copy->CheckValue("auto"));
  EXPECT_TRUE(copy->CheckValue("slow"));
  EXPECT_FALSE(copy->CheckValue("other"));
  copy->Reset();
  EXPECT_FALSE(copy->CheckValue("slow"));
  EXPECT_EQ(1, copy->value_count());
}

class SubcommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ArgumentDef verbose = Def("verbose", false, "Talk more");
    verbose.SetValueCount(0);  // a flag: does not swallow the subcommand word
    parser_.Add(verbose);
    convert_ = parser_.AddSection("convert");
    ASSERT_NE(nullptr, convert_);
    ArgumentDef quality = Def("quality", true, "JPEG quality");
    quality.SetValueCount(1);
    convert_->Add(quality);
    convert_->SetRemainderCount(2);
    convert_->SetRemainderName("files");
    convert_->SetDescription("Converts one file.");
  }

  int Parse(const std::string& line) { return parser_.Parse(Tokens(line), &result_); }

  ArgumentParser parser_;
  ArgumentSection* convert_ = nullptr;
  ParseResult result_;
};

TEST_F(SubcommandTest, SelectsAndChecksTheSection) {
  ASSERT_EQ(0, Parse("--verbose convert --quality 5 a b"));
  EXPECT_EQ("convert", result_.command());
  EXPECT_TRUE(result_.Has("verbose"));
  EXPECT_THAT(result_.Get("quality"), ElementsAre("5"));
  EXPECT_THAT(result_.positional(), ElementsAre("a", "b"));

  // A word that names no section is the first positional.
  ASSERT_EQ(0, Parse("other x"));
  EXPECT_EQ("", result_.command());
  EXPECT_EQ(nullptr, parser_.AddSection("convert"));
  EXPECT_EQ(nullptr, parser_.AddSection(""));

  EXPECT_EQ(-1, Parse("convert --verbose"));
  EXPECT_EQ(-1, Parse("convert a b"));
  EXPECT_EQ(-1, Parse("convert --quality 5 a b c"));
  parser_.global_section()->SetRemainderCount(0);
  EXPECT_EQ(-1, Parse("x"));
  EXPECT_EQ(
      "Argument '--verbose': '--verbose' is not a valid argument\n"
      "Argument 'quality': Required argument"
      "Global: Expect 2 remainders, but threre are 3"
      "Global: Expect 0 remainders, but threre are 1",
      parser_.ErrorText());
}

// The help text after the notice line and its blank line.
std::string HelpBody(const ArgumentParser& parser, const std::string& section) {
  std::ostringstream out;
  parser.PrintHelp(section, out);
  const std::string text = out.str();
  return text.substr(text.find("\n\n") + 2);
}

TEST_F(SubcommandTest, PrintsTheNamedSection) {
  EXPECT_EQ(
      "Usage: PROGRAM convert --quality [-h, --help] <files> \n"
      "Converts one file.\n"
      "\n"
      "Required arguments: \n"
      "    --quality\tJPEG quality\n"
      "\n"
      "Optional arguments: \n"
      "    -h, --help\tShow this help message\n"
      "\n"
      "\n",
      HelpBody(parser_, "convert"));

  // Unknown names fall back to the global section.
  parser_.SetProgramName("tool");
  parser_.global_section()->SetRemainderCount(1);
  EXPECT_EQ(
      "Usage: tool [--verbose] [-h, --help] <arguments> \n"
      "\n"
      "Required arguments: \n"
      "\n"
      "Optional arguments: \n"
      "    --verbose\tTalk more\n"
      "    -h, --help\tShow this help message\n"
      "\n"
      "\n",
      HelpBody(parser_, "unknown"));

  convert_->SetHelpText("custom\n");
  EXPECT_EQ("custom\n\n", HelpBody(parser_, "convert"));
}

}  // namespace
}  // namespace argument
}  // namespace tessera
