// A small command-line parser: argument definitions registered in sections
// (a global section and optional named subcommand sections), a token list
// parsed into key -> list of values plus positional tokens, errors collected
// as text, and a generated help text.
//
// Grammar (tokens exclude the program's own name):
//
//   command-line := global-option* [subcommand subcommand-option*] positional*
//
// - An option token is either "-x..." (length >= 2, first byte '-', second
//   not '-': the short form) or "--name..." (length >= 3, begins with "--",
//   third byte not '-': the long form). Everything else is a plain token,
//   including "-", "--", "---x", "" and "file.jpg"; "-" and "--" have no
//   special meaning (there is no end-of-options marker).
// - Short form: everything after the first '-' is the short name, so "-abc"
//   looks for short name "abc" and never matches: short options are not
//   clustered. There is no "-xVALUE" or "-x=VALUE" form.
// - Long form: "--name=value" gives the inline value "value" for "name" (the
//   first '=' splits). An inline value is stored as it is: it bypasses the
//   definition's value count and value check. "--name=" has no inline value
//   and behaves like "--name".
// - Otherwise an option takes the plain tokens that follow it as its values,
//   up to the next option token, the end, or its value count when that is
//   >= 0; each is checked with CheckValue(). An option given without values
//   is still present, with an empty list. Repeating an option appends to the
//   same list.
// - Names match exactly (case-sensitive). An unknown option is an error.
// - The first plain token ends the options. If it names a subcommand section
//   it selects that section, whose options follow (the global section's
//   options are no longer recognised there); every token after that is
//   positional, and an option token among the positionals is an error.
// - "-h"/"--help" are built into every section, stored under the key "help",
//   and not acted on: what to do with them is the caller's business.
//
// After the tokens are consumed, required definitions must be present, a
// definition with value count N >= 0 must hold exactly N values, and a section
// with remainder count R >= 0 must have exactly R positional tokens.
//
// Thread-safety: none of these classes is internally synchronised. Distinct
// objects may be used on distinct threads; const member functions of one
// object may run concurrently with each other.
#ifndef TESSERA_LIB_ARGUMENT_ARGUMENT_PARSER_H_
#define TESSERA_LIB_ARGUMENT_ARGUMENT_PARSER_H_

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace tessera {
namespace argument {

// One option: its names, the key its values are stored under, and how many
// values it takes. A plain value type; sections store clones of it.
class ArgumentDef {
 public:
  ArgumentDef();
  ArgumentDef(const ArgumentDef&) = default;
  ArgumentDef& operator=(const ArgumentDef&) = default;
  virtual ~ArgumentDef() = default;

  // Stores the default value. It is kept with the definition only; parsing
  // never puts it into a result.
  virtual void SetDefault(const std::string& text);
  // Empties names, key, default and help text; value count -1, not required.
  virtual void Reset();
  // True when a long or a short name is set and the key is not empty.
  virtual bool IsValid() const;
  // The usage-line token: the name form ("-h, --help", "--src" or "-h"),
  // in "[" "]" when not required.
  virtual std::string UsageToken() const;
  // The listing line: the name form, a tab, the help text.
  virtual std::string HelpLine() const;
  // A heap copy of the same dynamic type; the caller owns it.
  virtual std::unique_ptr<ArgumentDef> Clone() const;
  // Whether a value is acceptable; the base class accepts everything.
  virtual bool CheckValue(const std::string& text) const;

  // Ignored (the old name stays) when `name` begins with '-'.
  void SetLongName(const std::string& name);
  // Ignored unless `c` is an ASCII letter or digit.
  void SetShortName(char c);
  void SetKey(const std::string& key) { key_ = key; }
  // -1 means any number of values.
  void SetValueCount(int32_t count) { value_count_ = count; }
  void SetRequired(bool required) { required_ = required; }
  void SetHelpText(const std::string& text) { help_text_ = text; }

  const std::string& long_name() const { return long_name_; }
  const std::string& short_name() const { return short_name_; }
  const std::string& key() const { return key_; }
  const std::string& default_value() const { return default_value_; }
  int32_t value_count() const { return value_count_; }
  bool required() const { return required_; }
  const std::string& help_text() const { return help_text_; }

 private:
  // "-s, --long", "--long" or "-s".
  std::string NameForm() const;

  std::string long_name_;
  std::string short_name_;  // empty or one character
  std::string key_;
  std::string default_value_;
  int32_t value_count_ = -1;
  bool required_ = false;
  std::string help_text_;
};

// An option whose values must come from a closed list (exact, case-sensitive
// match). Takes one value unless told otherwise.
class ChoiceArgumentDef : public ArgumentDef {
 public:
  ChoiceArgumentDef();
  ChoiceArgumentDef(const ChoiceArgumentDef&) = default;
  ChoiceArgumentDef& operator=(const ChoiceArgumentDef&) = default;
  ~ChoiceArgumentDef() override = default;

  // Adds `text` to the choices (if new) and stores it as the default.
  void SetDefault(const std::string& text) override;
  // The base reset, then value count 1 and no choices.
  void Reset() override;
  std::unique_ptr<ArgumentDef> Clone() const override;
  // True only for one of the choices.
  bool CheckValue(const std::string& text) const override;

  void AddChoice(const std::string& text) { choices_.insert(text); }
  const std::set<std::string>& choices() const { return choices_; }

 private:
  std::set<std::string> choices_;
};

// One set of definitions: the global one (empty name) or a subcommand.
// Movable, not copyable.
class ArgumentSection {
 public:
  ArgumentSection();
  ArgumentSection(ArgumentSection&&) = default;
  ArgumentSection& operator=(ArgumentSection&&) = default;
  ArgumentSection(const ArgumentSection&) = delete;
  ArgumentSection& operator=(const ArgumentSection&) = delete;

  // Stores a clone of `definition` and returns 0; returns -1 and stores
  // nothing when the definition is not valid. The caller keeps `definition`.
  int Add(const ArgumentDef& definition);

  // Destroys the definitions, empties name, description and help override,
  // sets the remainder to -1 / "" and restores the built-in help definition.
  void Reset();

  void SetName(const std::string& name) { name_ = name; }
  void SetDescription(const std::string& text) { description_ = text; }
  // When not empty, printed instead of the generated help of this section.
  void SetHelpText(const std::string& text) { help_text_ = text; }
  // -1: any number of positional tokens; otherwise exactly this many.
  void SetRemainderCount(int32_t count) { remainder_count_ = count; }
  // Shown as "<name>" in the usage line ("<arguments>" when empty).
  void SetRemainderName(const std::string& name) { remainder_name_ = name; }

  const std::vector<std::unique_ptr<ArgumentDef>>& definitions() const { return definitions_; }
  const std::string& name() const { return name_; }
  const std::string& description() const { return description_; }
  const std::string& help_text() const { return help_text_; }
  int32_t remainder_count() const { return remainder_count_; }
  const std::string& remainder_name() const { return remainder_name_; }
  // "-h, --help", key "help"; found after the registered definitions.
  const ArgumentDef& help_definition() const { return help_definition_; }

  // The definition an option token names: the first registered one whose
  // non-empty short name equals `short_part` or whose non-empty long name
  // equals `long_part`, else the built-in help definition if it matches,
  // else nullptr. The pointer lives as long as the definition.
  const ArgumentDef* Find(const std::string& short_part, const std::string& long_part) const;

  // Writes the usage line and the argument listings (or the help override).
  void PrintHelp(const std::string& program_name, std::ostream& out) const;

 private:
  std::vector<std::unique_ptr<ArgumentDef>> definitions_;
  std::string description_;
  std::string name_;
  std::string help_text_;
  int32_t remainder_count_ = -1;
  std::string remainder_name_;
  ArgumentDef help_definition_;
};

// What a successful Parse found. Copyable.
class ParseResult {
 public:
  // The values stored under `key`, in command-line order; an empty list when
  // the key is absent. The reference lives as long as this result and is
  // invalidated by the next Parse into it.
  const std::vector<std::string>& Get(const std::string& key) const;
  // Whether the option occurred at all (possibly without values).
  bool Has(const std::string& key) const { return values_.count(key) != 0; }

  const std::vector<std::string>& positional() const { return positional_; }
  const std::map<std::string, std::vector<std::string>>& values() const { return values_; }
  // The selected subcommand's name, "" when none.
  const std::string& command() const { return command_; }

 private:
  friend class ArgumentParser;

  void Clear();

  std::vector<std::string> positional_;
  std::map<std::string, std::vector<std::string>> values_;
  std::string command_;
  std::vector<std::string> empty_;  // never modified
};

// Parses token lists against a global section and optional subcommand
// sections. Not copyable.
class ArgumentParser {
 public:
  ArgumentParser();
  ArgumentParser(const ArgumentParser&) = delete;
  ArgumentParser& operator=(const ArgumentParser&) = delete;

  // Adds a clone of `definition` to the global section (see
  // ArgumentSection::Add).
  int Add(const ArgumentDef& definition) { return global_.Add(definition); }
  ArgumentSection* global_section() { return &global_; }

  // Adds a subcommand section named `name` and returns it; the pointer stays
  // valid as long as the parser. Returns nullptr and adds nothing when the
  // name is empty or already taken by another subcommand.
  ArgumentSection* AddSection(const std::string& name);

  void SetProgramName(const std::string& name) { program_name_ = name; }
  const std::string& program_name() const { return program_name_; }

  // Parses `tokens` (without the program name) into *result, which is
  // cleared first. Returns 0, or -1 after writing one message to the error
  // text; *result then holds whatever was parsed before the error.
  int Parse(const std::vector<std::string>& tokens, ParseResult* result);

  // Every message written by every Parse so far; it is never emptied.
  std::string ErrorText() const { return error_.str(); }

  // Writes the help text: the rights notice with the current local year, a
  // blank line, and the help of the subcommand section named `section_name`
  // (the global section when there are no subcommands or none has that
  // name), then a final blank line.
  void PrintHelp(const std::string& section_name, std::ostream& out) const;

 private:
  // Consumes options of `section` from the cursor on; false after writing an
  // error.
  bool RunOptionPhase(const ArgumentSection& section, ParseResult* result);
  // Stores the values of one option whose token the cursor has passed.
  bool ConsumeValues(const ArgumentDef& definition, ParseResult* result);
  // Required definitions present and value counts met; false after an error.
  bool CheckRequirements(const ArgumentSection& section, const ParseResult& result);

  ArgumentSection global_;
  std::list<ArgumentSection> sections_;  // a list keeps section pointers stable
  std::string program_name_;
  std::vector<std::string> tokens_;
  size_t cursor_ = 0;
  const ArgumentSection* selected_ = nullptr;
  std::ostringstream error_;
};

}  // namespace argument
}  // namespace tessera

#endif  // TESSERA_LIB_ARGUMENT_ARGUMENT_PARSER_H_
