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

// The parser as the tool sets it up: two required long options.
class ToolParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, parser_.Add(Def("output_dir", true, "The path to save thumbnail")));
    ASSERT_EQ(0, parser_.Add(Def("src", true, "The src image to generate thumbnail")));
  }

  int Parse(const std::string& line) { return parser_.Parse(Tokens(line), &result_); }

  ArgumentParser parser_;
  ParseResult result_;
};

TEST_F(ToolParserTest, AcceptsSpacedInlineAndReorderedForms) {
  ASSERT_EQ(0, Parse("--output_dir out --src a.jpg"));
  EXPECT_THAT(result_.Get("output_dir"), ElementsAre("out"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a.jpg"));
  EXPECT_THAT(result_.positional(), IsEmpty());
  EXPECT_EQ("", result_.command());

  ASSERT_EQ(0, Parse("--src=a.jpg --output_dir=out"));
  EXPECT_THAT(result_.Get("output_dir"), ElementsAre("out"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a.jpg"));

  // "=" splits at the first one only.
  ASSERT_EQ(0, Parse("--src=a=b.jpg --output_dir out"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a=b.jpg"));
  EXPECT_EQ("", parser_.ErrorText());
}

TEST_F(ToolParserTest, CollectsEveryValueUpToTheNextOption) {
  ASSERT_EQ(0, Parse("--src a.jpg b.jpg --output_dir out"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a.jpg", "b.jpg"));

  ASSERT_EQ(0, Parse("--output_dir one --src s --output_dir two"));
  EXPECT_THAT(result_.Get("output_dir"), ElementsAre("one", "two"));

  // Inline and spaced values of one option share its list.
  ASSERT_EQ(0, Parse("--src=a --output_dir o --src b"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a", "b"));
}

TEST_F(ToolParserTest, OptionWithoutValuesIsPresentButEmpty) {
  ASSERT_EQ(0, Parse("--src a.jpg --output_dir"));
  EXPECT_TRUE(result_.Has("output_dir"));
  EXPECT_THAT(result_.Get("output_dir"), IsEmpty());

  // An option token is never taken as a value.
  ASSERT_EQ(0, Parse("--src --output_dir out"));
  EXPECT_TRUE(result_.Has("src"));
  EXPECT_THAT(result_.Get("src"), IsEmpty());

  // "--name=" carries no inline value.
  ASSERT_EQ(0, Parse("--src= a.jpg --output_dir out"));
  EXPECT_THAT(result_.Get("src"), ElementsAre("a.jpg"));
}

TEST_F(ToolParserTest, AbsentKeysGiveOneEmptyList) {
  ASSERT_EQ(0, Parse("--src a --output_dir b"));
  EXPECT_FALSE(result_.Has("nothing"));
  const std::vector<std::string>& first = result_.Get("nothing");
  EXPECT_THAT(first, IsEmpty());
  EXPECT_EQ(&first, &result_.Get("other"));
}

TEST_F(ToolParserTest, ReportsMissingRequiredInRegistrationOrder) {
  EXPECT_EQ(-1, Parse(""));
  EXPECT_EQ("Argument 'output_dir': Required argument", parser_.ErrorText());

  ArgumentParser parser;
  parser.Add(Def("output_dir", true));
  parser.Add(Def("src", true));
  EXPECT_EQ(-1, parser.Parse(Tokens("--output_dir out"), &result_));
  EXPECT_EQ("Argument 'src': Required argument", parser.ErrorText());
}

TEST_F(ToolParserTest, RejectsUnknownOptionsQuotingTheWholeToken) {
  EXPECT_EQ(-1, Parse("--size 3"));
  EXPECT_EQ("Argument '--size': '--size' is not a valid argument\n", parser_.ErrorText());

  ArgumentParser parser;
  parser.Add(Def("src", false));
  EXPECT_EQ(-1, parser.Parse(Tokens("-x"), &result_));
  EXPECT_EQ("Argument '-x': '-x' is not a valid argument\n", parser.ErrorText());
}

TEST_F(ToolParserTest, NamesMatchExactlyWithoutPrefixOrCase) {
  EXPECT_EQ(-1, Parse("--SRC a --output_dir b"));
  EXPECT_EQ(-1, Parse("--sr a --output_dir b"));
  EXPECT_EQ(-1, Parse("--=a --output_dir b"));
  EXPECT_EQ(
      "Argument '--SRC': '--SRC' is not a valid argument\n"
      "Argument '--sr': '--sr' is not a valid argument\n"
      "Argument '--=a': '--=a' is not a valid argument\n",
      parser_.ErrorText());
}

TEST_F(ToolParserTest, OptionsMustPrecedePositionals) {
  EXPECT_EQ(-1, Parse("a.jpg --src b.jpg"));
  EXPECT_EQ("Global: '--src' is not a valid positional argument", parser_.ErrorText());
}

TEST_F(ToolParserTest, ErrorTextAccumulatesAcrossParses) {
  EXPECT_EQ(-1, Parse("--bogus"));
  EXPECT_EQ(0, Parse("--src a --output_dir b"));
  EXPECT_EQ(-1, Parse("--src a"));
  EXPECT_EQ(
      "Argument '--bogus': '--bogus' is not a valid argument\n"
      "Argument 'output_dir': Required argument",
      parser_.ErrorText());
}

TEST_F(ToolParserTest, HelpIsStoredNotActedOn) {
  ASSERT_EQ(0, Parse("--src a --output_dir b -h"));
  EXPECT_TRUE(result_.Has("help"));
  ASSERT_EQ(0, Parse("--help x y --src a --output_dir b"));
  EXPECT_THAT(result_.Get("help"), ElementsAre("x", "y"));
  // Asking for help does not waive the required arguments.
  EXPECT_EQ(-1, Parse("--help"));
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

// Plain-token rules that need no required options.
TEST(ArgumentParserTest, DashAndDoubleDashArePlainTokens) {
  ArgumentParser parser;
  ArgumentDef src = Def("src", false);
  src.SetShortName('s');
  parser.Add(src);
  ParseResult result;

  ASSERT_EQ(0, parser.Parse(Tokens("- x"), &result));
  EXPECT_THAT(result.positional(), ElementsAre("-", "x"));
  ASSERT_EQ(0, parser.Parse(Tokens("-- ---x"), &result));
  EXPECT_THAT(result.positional(), ElementsAre("--", "---x"));
  ASSERT_EQ(0, parser.Parse({"", "a"}, &result));
  EXPECT_THAT(result.positional(), ElementsAre("", "a"));

  // After an option they are values.
  ASSERT_EQ(0, parser.Parse(Tokens("-s - -- ---x"), &result));
  EXPECT_THAT(result.Get("src"), ElementsAre("-", "--", "---x"));
  EXPECT_THAT(result.positional(), IsEmpty());

  // "--" does not end the options: an option after it is an error.
  EXPECT_EQ(-1, parser.Parse(Tokens("-- --src a"), &result));
  EXPECT_EQ("Global: '--src' is not a valid positional argument", parser.ErrorText());
}

TEST(ArgumentParserTest, ShortOptionsAreNotClustered) {
  ArgumentParser parser;
  ArgumentDef all = Def("all", false);
  all.SetShortName('a');
  ArgumentDef brief = Def("brief", false);
  brief.SetShortName('b');
  parser.Add(all);
  parser.Add(brief);
  ParseResult result;

  ASSERT_EQ(0, parser.Parse(Tokens("-a -b v"), &result));
  EXPECT_TRUE(result.Has("all"));
  EXPECT_THAT(result.Get("brief"), ElementsAre("v"));
  EXPECT_EQ(-1, parser.Parse(Tokens("-ab"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens("-a=v"), &result));
  EXPECT_EQ(
      "Argument '-ab': '-ab' is not a valid argument\n"
      "Argument '-a=v': '-a=v' is not a valid argument\n",
      parser.ErrorText());
}

TEST(ArgumentParserTest, FixedValueCounts) {
  ArgumentParser parser;
  ArgumentDef pair = Def("pair", false);
  pair.SetValueCount(2);
  parser.Add(pair);
  ParseResult result;

  // Values stop at the count; the rest are positional.
  ASSERT_EQ(0, parser.Parse(Tokens("--pair a b c"), &result));
  EXPECT_THAT(result.Get("pair"), ElementsAre("a", "b"));
  EXPECT_THAT(result.positional(), ElementsAre("c"));

  EXPECT_EQ(-1, parser.Parse(Tokens("--pair a"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens("--pair a b --pair c"), &result));
  // The inline form bypasses the count while parsing; the final check
  // still sees three values.
  EXPECT_EQ(-1, parser.Parse(Tokens("--pair a b --pair=c"), &result));
  EXPECT_EQ(
      "Argument 'pair': Expect 2 arguments, but threre are 1"
      "Argument 'pair': Expect 2 argument(s)\n"
      "Argument 'pair': Expect 2 arguments, but threre are 3",
      parser.ErrorText());
}

TEST(ChoiceArgumentDefTest, ChecksSpacedValuesButNotInlineOnes) {
  ArgumentParser parser;
  parser.Add(ModeDef());
  ParseResult result;

  ASSERT_EQ(0, parser.Parse(Tokens("--mode=bogus"), &result));
  EXPECT_THAT(result.Get("mode"), ElementsAre("bogus"));
  ASSERT_EQ(0, parser.Parse(Tokens("--mode fast extra"), &result));
  EXPECT_THAT(result.Get("mode"), ElementsAre("fast"));
  EXPECT_THAT(result.positional(), ElementsAre("extra"));

  EXPECT_EQ(-1, parser.Parse(Tokens("--mode bogus"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens("--mode Fast"), &result));
  EXPECT_EQ(
      "Argument 'mode': 'bogus' is not a valid argument\n"
      "Argument 'mode': 'Fast' is not a valid argument\n",
      parser.ErrorText());
}

TEST(ChoiceArgumentDefTest, TakesExactlyOneValue) {
  ArgumentParser parser;
  parser.Add(ModeDef());
  ParseResult result;

  EXPECT_EQ(-1, parser.Parse(Tokens("--mode"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens("--mode fast --mode slow"), &result));
  EXPECT_EQ(
      "Argument 'mode': Expect 1 arguments, but threre are 0"
      "Argument 'mode': Expect 1 argument(s)\n",
      parser.ErrorText());

  // A first occurrence without a value leaves room for one.
  ASSERT_EQ(0, parser.Parse(Tokens("--mode --mode slow"), &result));
  EXPECT_THAT(result.Get("mode"), ElementsAre("slow"));
}

TEST(ChoiceArgumentDefTest, DefaultJoinsTheChoicesAndClonesKeepThem) {
  ChoiceArgumentDef mode = ModeDef();
  mode.SetDefault("auto");
  EXPECT_EQ("auto", mode.default_value());
  EXPECT_TRUE(mode.CheckValue("auto"));
  EXPECT_FALSE(mode.CheckValue(""));

  std::unique_ptr<ArgumentDef> copy = mode.Clone();
  EXPECT_TRUE(copy->CheckValue("slow"));
  EXPECT_FALSE(copy->CheckValue("other"));
  EXPECT_EQ(1, copy->value_count());

  copy->Reset();
  EXPECT_FALSE(copy->CheckValue("slow"));
  EXPECT_EQ(1, copy->value_count());
  EXPECT_FALSE(copy->IsValid());
}

TEST(ArgumentDefTest, InvalidNamesAreIgnoredAndInvalidDefinitionsRefused) {
  ArgumentDef def;
  def.SetKey("name");
  def.SetLongName("--name");
  def.SetShortName('-');
  EXPECT_EQ("", def.long_name());
  EXPECT_EQ("", def.short_name());
  EXPECT_FALSE(def.IsValid());

  ArgumentSection section;
  EXPECT_EQ(-1, section.Add(def));
  EXPECT_THAT(section.definitions(), IsEmpty());

  def.SetShortName('n');
  EXPECT_EQ(0, section.Add(def));
  def.SetKey("");
  EXPECT_EQ(-1, section.Add(def));
  ASSERT_EQ(1u, section.definitions().size());
  // The section holds its own copy.
  EXPECT_EQ("name", section.definitions()[0]->key());

  EXPECT_EQ("[-n]", section.definitions()[0]->UsageToken());
  def.SetLongName("name");
  def.SetRequired(true);
  def.SetHelpText("text");
  EXPECT_EQ("-n, --name", def.UsageToken());
  EXPECT_EQ("-n, --name\ttext", def.HelpLine());
}

TEST(ArgumentDefTest, RegisteredDefinitionsShadowTheBuiltInHelp) {
  ArgumentParser parser;
  ArgumentDef host = Def("host", false);
  host.SetShortName('h');
  parser.Add(host);
  ParseResult result;
  ASSERT_EQ(0, parser.Parse(Tokens("-h x --help y"), &result));
  EXPECT_THAT(result.Get("host"), ElementsAre("x"));
  EXPECT_THAT(result.Get("help"), ElementsAre("y"));
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

TEST_F(SubcommandTest, SelectsTheSectionAndItsOptions) {
  ASSERT_EQ(0, Parse("--verbose convert --quality 5 a b"));
  EXPECT_EQ("convert", result_.command());
  EXPECT_TRUE(result_.Has("verbose"));
  EXPECT_THAT(result_.Get("quality"), ElementsAre("5"));
  EXPECT_THAT(result_.positional(), ElementsAre("a", "b"));

  // A word that names no section is the first positional.
  ASSERT_EQ(0, Parse("other x"));
  EXPECT_EQ("", result_.command());
  EXPECT_THAT(result_.positional(), ElementsAre("other", "x"));

  EXPECT_EQ(nullptr, parser_.AddSection("convert"));
  EXPECT_EQ(nullptr, parser_.AddSection(""));
}

TEST_F(SubcommandTest, ChecksTheSelectedSection) {
  EXPECT_EQ(-1, Parse("convert --verbose"));
  EXPECT_EQ(-1, Parse("convert a b"));
  EXPECT_EQ(-1, Parse("convert --quality 5 a b c"));
  EXPECT_EQ(
      "Argument '--verbose': '--verbose' is not a valid argument\n"
      "Argument 'quality': Required argument"
      "Global: Expect 2 remainders, but threre are 3",
      parser_.ErrorText());
}

TEST(RemainderTest, GlobalRemainderCount) {
  ArgumentParser parser;
  parser.global_section()->SetRemainderCount(2);
  ParseResult result;
  EXPECT_EQ(0, parser.Parse(Tokens("a b"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens("a b c"), &result));
  EXPECT_EQ(-1, parser.Parse(Tokens(""), &result));
  EXPECT_EQ(
      "Global: Expect 2 remainders, but threre are 3"
      "Global: Expect 2 remainders, but threre are 0",
      parser.ErrorText());
}

// The part after the notice line and its blank line.
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

  parser_.SetProgramName("tool");
  convert_->SetRemainderName("");
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
