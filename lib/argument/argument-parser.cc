#include "lib/argument/argument-parser.h"

#include <string>
#include <utility>

#include "lib/argument/local-year.h"

namespace tessera {
namespace argument {
namespace {

// Numbers are written with std::to_string rather than through the streams,
// whose locale might group digits.

bool IsShortOptionToken(const std::string& token) {
  return token.size() >= 2 && token[0] == '-' && token[1] != '-';
}

bool IsLongOptionToken(const std::string& token) {
  return token.size() >= 3 && token[0] == '-' && token[1] == '-' && token[2] != '-';
}

bool IsOptionToken(const std::string& token) {
  return IsShortOptionToken(token) || IsLongOptionToken(token);
}

bool IsAsciiAlnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace

// --- ArgumentDef ---

ArgumentDef::ArgumentDef() { ArgumentDef::Reset(); }

void ArgumentDef::SetDefault(const std::string& text) { default_value_ = text; }

void ArgumentDef::Reset() {
  long_name_.clear();
  short_name_.clear();
  key_.clear();
  default_value_.clear();
  help_text_.clear();
  value_count_ = -1;
  required_ = false;
}

bool ArgumentDef::IsValid() const {
  return (!long_name_.empty() || !short_name_.empty()) && !key_.empty();
}

std::string ArgumentDef::NameForm() const {
  if (!long_name_.empty() && !short_name_.empty()) return "-" + short_name_ + ", --" + long_name_;
  if (!long_name_.empty()) return "--" + long_name_;
  if (!short_name_.empty()) return "-" + short_name_;
  return std::string();
}

std::string ArgumentDef::UsageToken() const {
  if (required_) return NameForm();
  return "[" + NameForm() + "]";
}

std::string ArgumentDef::HelpLine() const { return NameForm() + "\t" + help_text_; }

std::unique_ptr<ArgumentDef> ArgumentDef::Clone() const { return std::make_unique<ArgumentDef>(*this); }

bool ArgumentDef::CheckValue(const std::string& /*text*/) const { return true; }

void ArgumentDef::SetLongName(const std::string& name) {
  if (!name.empty() && name[0] == '-') return;
  long_name_ = name;
}

void ArgumentDef::SetShortName(char c) {
  if (!IsAsciiAlnum(c)) return;
  short_name_.assign(1, c);
}

// --- ChoiceArgumentDef ---

ChoiceArgumentDef::ChoiceArgumentDef() { ChoiceArgumentDef::Reset(); }

void ChoiceArgumentDef::SetDefault(const std::string& text) {
  choices_.insert(text);
  ArgumentDef::SetDefault(text);
}

void ChoiceArgumentDef::Reset() {
  ArgumentDef::Reset();
  SetValueCount(1);
  choices_.clear();
}

std::unique_ptr<ArgumentDef> ChoiceArgumentDef::Clone() const {
  return std::make_unique<ChoiceArgumentDef>(*this);
}

bool ChoiceArgumentDef::CheckValue(const std::string& text) const { return choices_.count(text) != 0; }

// --- ArgumentSection ---

ArgumentSection::ArgumentSection() { Reset(); }

int ArgumentSection::Add(const ArgumentDef& definition) {
  if (!definition.IsValid()) return -1;
  definitions_.push_back(definition.Clone());
  return 0;
}

void ArgumentSection::Reset() {
  definitions_.clear();
  description_.clear();
  name_.clear();
  help_text_.clear();
  remainder_count_ = -1;
  remainder_name_.clear();
  help_definition_.Reset();
  help_definition_.SetShortName('h');
  help_definition_.SetLongName("help");
  help_definition_.SetKey("help");
  help_definition_.SetHelpText("Show this help message");
}

const ArgumentDef* ArgumentSection::Find(const std::string& short_part,
                                         const std::string& long_part) const {
  auto matches = [&](const ArgumentDef& d) {
    return (!d.short_name().empty() && d.short_name() == short_part) ||
           (!d.long_name().empty() && d.long_name() == long_part);
  };
  for (const auto& d : definitions_) {
    if (matches(*d)) return d.get();
  }
  if (matches(help_definition_)) return &help_definition_;
  return nullptr;
}

void ArgumentSection::PrintHelp(const std::string& program_name, std::ostream& out) const {
  if (!help_text_.empty()) {
    out << help_text_;
    return;
  }
  out << "Usage: " << program_name << " ";
  if (!name_.empty()) out << name_ << " ";
  for (const auto& d : definitions_) out << d->UsageToken() << " ";
  out << help_definition_.UsageToken() << " ";
  if (remainder_count_ >= 1) {
    out << "<" << (remainder_name_.empty() ? std::string("arguments") : remainder_name_) << "> ";
  }
  out << "\n";
  if (!description_.empty()) out << description_ << "\n";
  out << "\n";

  out << "Required arguments: \n";
  for (const auto& d : definitions_) {
    if (d->required()) out << "    " << d->HelpLine() << "\n";
  }
  out << "\n";

  out << "Optional arguments: \n";
  for (const auto& d : definitions_) {
    if (!d->required()) out << "    " << d->HelpLine() << "\n";
  }
  out << "    " << help_definition_.HelpLine() << "\n";
  out << "\n";
}

// --- ParseResult ---

const std::vector<std::string>& ParseResult::Get(const std::string& key) const {
  auto it = values_.find(key);
  return it == values_.end() ? empty_ : it->second;
}

void ParseResult::Clear() {
  positional_.clear();
  values_.clear();
  command_.clear();
}

// --- ArgumentParser ---

ArgumentParser::ArgumentParser() : program_name_("PROGRAM") {}

ArgumentSection* ArgumentParser::AddSection(const std::string& name) {
  if (name.empty()) return nullptr;
  for (const auto& section : sections_) {
    if (section.name() == name) return nullptr;
  }
  sections_.emplace_back();
  sections_.back().SetName(name);
  return &sections_.back();
}

int ArgumentParser::Parse(const std::vector<std::string>& tokens, ParseResult* result) {
  tokens_ = tokens;
  cursor_ = 0;
  selected_ = nullptr;
  result->Clear();

  if (!RunOptionPhase(global_, result)) return -1;

  if (cursor_ < tokens_.size()) {
    for (const auto& section : sections_) {
      if (section.name() == tokens_[cursor_]) {
        selected_ = &section;
        ++cursor_;
        break;
      }
    }
  }
  if (selected_ != nullptr) {
    result->command_ = selected_->name();
    if (!RunOptionPhase(*selected_, result)) return -1;
  }

  for (; cursor_ < tokens_.size(); ++cursor_) {
    const std::string& token = tokens_[cursor_];
    if (IsOptionToken(token)) {
      error_ << "Global: " << "'" << token << "' is not a valid positional argument";
      return -1;
    }
    result->positional_.push_back(token);
  }

  if (!CheckRequirements(global_, *result)) return -1;
  if (selected_ != nullptr && !CheckRequirements(*selected_, *result)) return -1;

  const ArgumentSection& last = selected_ != nullptr ? *selected_ : global_;
  const int32_t remainders = last.remainder_count();
  if (remainders >= 0 && static_cast<size_t>(remainders) != result->positional_.size()) {
    // The prefix is "Global: " for a subcommand as well.
    error_ << "Global: " << "Expect " << std::to_string(remainders) << " remainders, "
           << "but threre are " << std::to_string(result->positional_.size());
    return -1;
  }
  return 0;
}

bool ArgumentParser::RunOptionPhase(const ArgumentSection& section, ParseResult* result) {
  while (cursor_ < tokens_.size()) {
    const std::string& token = tokens_[cursor_];
    std::string short_part, long_part, inline_value;
    if (IsShortOptionToken(token)) {
      short_part = token.substr(1);
    } else if (IsLongOptionToken(token)) {
      const size_t eq = token.find('=', 2);
      if (eq == std::string::npos) {
        long_part = token.substr(2);
      } else {
        long_part = token.substr(2, eq - 2);
        inline_value = token.substr(eq + 1);
      }
    } else {
      return true;  // the first plain token ends the options
    }

    const ArgumentDef* definition = section.Find(short_part, long_part);
    if (definition == nullptr) {
      error_ << "Argument '" << token << "': " << "'" << token << "' is not a valid argument" << "\n";
      return false;
    }
    ++cursor_;

    if (!inline_value.empty()) {
      // "--name=value" is stored unchecked, whatever the value count.
      result->values_[definition->key()].push_back(std::move(inline_value));
      continue;
    }
    if (!ConsumeValues(*definition, result)) return false;
  }
  return true;
}

bool ArgumentParser::ConsumeValues(const ArgumentDef& definition, ParseResult* result) {
  const std::string& key = definition.key();
  const int32_t count = definition.value_count();
  auto it = result->values_.find(key);
  if (it != result->values_.end() && count >= 0 && it->second.size() >= static_cast<size_t>(count)) {
    error_ << "Argument '" << key << "': " << "Expect " << std::to_string(count) << " argument(s)" << "\n";
    return false;
  }
  if (it == result->values_.end()) it = result->values_.emplace(key, std::vector<std::string>()).first;
  std::vector<std::string>& values = it->second;

  while (cursor_ < tokens_.size()) {
    const std::string& token = tokens_[cursor_];
    if (IsOptionToken(token)) break;
    if (count >= 0 && values.size() >= static_cast<size_t>(count)) break;
    if (!definition.CheckValue(token)) {
      error_ << "Argument '" << key << "': " << "'" << token << "' is not a valid argument" << "\n";
      return false;
    }
    values.push_back(token);
    ++cursor_;
  }
  return true;
}

bool ArgumentParser::CheckRequirements(const ArgumentSection& section, const ParseResult& result) {
  for (const auto& definition : section.definitions()) {
    const std::string& key = definition->key();
    auto it = result.values_.find(key);
    if (it == result.values_.end()) {
      if (definition->required()) {
        error_ << "Argument '" << key << "': " << "Required argument";
        return false;
      }
      continue;
    }
    const int32_t count = definition->value_count();
    if (count >= 0 && it->second.size() != static_cast<size_t>(count)) {
      error_ << "Argument '" << key << "': " << "Expect " << std::to_string(count) << " arguments, "
             << "but threre are " << std::to_string(it->second.size());
      return false;
    }
  }
  return true;
}

void ArgumentParser::PrintHelp(const std::string& section_name, std::ostream& out) const {
  out << "Copyright (c) 2003-" << std::to_string(CurrentLocalYear()) << " Tessera contributors. All rights reserved."
      << "\n";
  out << "\n";
  const ArgumentSection* section = &global_;
  for (const auto& candidate : sections_) {
    if (candidate.name() == section_name) {
      section = &candidate;
      break;
    }
  }
  section->PrintHelp(program_name_, out);
  out << "\n";
}

}  // namespace argument
}  // namespace tessera
