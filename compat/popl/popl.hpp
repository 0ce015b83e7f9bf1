// The part of the option parser popl that the program uses, under the library's own names, for hosts that do
// not have it.
//
// Forms: --name=value (the value may be empty), --name value, -n value, -nvalue, grouped switches; "--" ends
// the options. A value option takes whatever follows it, also what looks like an option. Errors:
// std::invalid_argument.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace popl {

// How much help is asked for. Every option here is an ordinary one, shown from `optional` on.
enum class Attribute { hidden = 1, optional = 3, advanced = 4, expert = 5 };

class Option {
  public:
    virtual ~Option() = default;
    bool is_set() const { return !values_.empty(); }
    // How often it was given.
    std::size_t count() const { return values_.size(); }

  protected:
    enum class Argument { none, required };

    Option(std::string shortName, std::string longName, std::string description, Argument argument)
        : shortName_(std::move(shortName)),
          longName_(std::move(longName)),
          description_(std::move(description)),
          argument_(argument) {
        if (shortName_.size() > 1) {
            throw std::invalid_argument("length of short option must be <= 1: '" + shortName_ + "'");
        }
        if (shortName_.empty() && longName_.empty()) {
            throw std::invalid_argument("short and long option are empty");
        }
    }

    const std::string& longName() const { return longName_; }
    const std::vector<std::string>& values() const { return values_; }

  private:
    friend class OptionParser;

    bool takesValue() const { return argument_ == Argument::required; }

    std::string helpText() const {
        std::string text = shortName_.empty() ? "" : "  -" + shortName_;
        if (!shortName_.empty() && !longName_.empty()) text += ", ";
        if (!longName_.empty()) text += "--" + longName_;
        return takesValue() ? text + " arg" : text;
    }

    std::string shortName_;
    std::string longName_;
    std::string description_;
    Argument argument_;
    std::vector<std::string> values_;  // one for each time it was given; a switch has empty ones
};

class Switch : public Option {
  public:
    Switch(std::string shortName, std::string longName, std::string description)
        : Option(std::move(shortName), std::move(longName), std::move(description), Argument::none) {}
};

template <class T>
class Value;

template <>
class Value<std::string> : public Option {
  public:
    Value(std::string shortName, std::string longName, std::string description)
        : Option(std::move(shortName), std::move(longName), std::move(description), Argument::required) {}

    std::string value(std::size_t index = 0) const {
        if (!is_set()) throw std::invalid_argument("option not set: \"" + longName() + "\"");
        if (index >= count()) {
            throw std::invalid_argument("index out of range (" + std::to_string(index) + ") for \"" +
                                        longName() + "\"");
        }
        return values()[index];
    }
};

class OptionParser {
  public:
    explicit OptionParser(std::string description) : description_(std::move(description)) {}

    template <class T, class... Parameters>
    std::shared_ptr<T> add(Parameters&&... parameters) {
        auto option = std::make_shared<T>(std::forward<Parameters>(parameters)...);
        if (find(&Option::shortName_, option->shortName_)) {
            throw std::invalid_argument("duplicate short option '-" + option->shortName_ + "'");
        }
        if (find(&Option::longName_, option->longName_)) {
            throw std::invalid_argument("duplicate long option '--" + option->longName_ + "'");
        }
        options_.push_back(option);
        return option;
    }

    // The first argument is the program's name.
    void parse(int argc, const char* const argv[]) {
        const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
        for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
            if (*argument == "--") {
                nonOptionArgs_.insert(nonOptionArgs_.end(), argument + 1, arguments.end());
                return;
            }
            const bool isLong = argument->starts_with("--");
            if (!isLong && (!argument->starts_with('-') || argument->size() == 1)) {
                nonOptionArgs_.push_back(*argument);
                continue;
            }
            const std::string& written = *argument;
            const bool known =
                isLong ? parseLong(argument, arguments.end()) : parseShort(argument, arguments.end());
            if (!known) unknownOptions_.push_back(written);
        }
    }

    std::string help(Attribute maxAttribute = Attribute::optional) const {
        if (maxAttribute < Attribute::optional)
            throw std::invalid_argument("visibility must be at least normal");
        std::size_t width = 0;
        for (const auto& option : options_)
            width = std::max(width, option->helpText().size() + 2);
        std::string text = description_ + ":\n";
        for (const auto& option : options_) {
            std::string name = option->helpText();
            name.resize(width, ' ');
            text += name + option->description_ + '\n';
        }
        return text;
    }

    const std::vector<std::string>& non_option_args() const { return nonOptionArgs_; }
    // As they were written.
    const std::vector<std::string>& unknown_options() const { return unknownOptions_; }

  private:
    using Position = std::vector<std::string>::const_iterator;

    Option* find(std::string Option::*name, std::string_view wanted) const {
        for (const auto& option : options_) {
            if (!wanted.empty() && (*option).*name == wanted) return option.get();
        }
        return nullptr;
    }

    // Steps on to the value that follows the option.
    static std::string nextArgument(Position& argument, Position end, const std::string& written) {
        if (argument + 1 == end) throw std::invalid_argument("missing argument for " + written);
        return *++argument;
    }

    bool parseLong(Position& argument, Position end) {
        const std::string_view written = *argument;
        const std::size_t equals = written.find('=');
        Option* const option = find(&Option::longName_, written.substr(0, equals).substr(2));
        if (!option) return false;
        std::string value;
        if (option->takesValue()) {
            value = equals == std::string_view::npos ? nextArgument(argument, end, *argument)
                                                     : std::string(written.substr(equals + 1));
        }
        option->values_.push_back(std::move(value));
        return true;
    }

    // False when any letter is unknown; the others count.
    bool parseShort(Position& argument, Position end) {
        const std::string letters = argument->substr(1);
        bool known = true;
        for (std::size_t i = 0; i < letters.size(); ++i) {
            const std::string letter = letters.substr(i, 1);
            Option* const option = find(&Option::shortName_, letter);
            if (!option) {
                known = false;
                continue;
            }
            if (!option->takesValue()) {
                option->values_.emplace_back();
                continue;
            }
            const std::string rest = letters.substr(i + 1);
            option->values_.push_back(rest.empty() ? nextArgument(argument, end, "-" + letter) : rest);
            break;
        }
        return known;
    }

    std::string description_;
    std::vector<std::shared_ptr<Option>> options_;
    std::vector<std::string> nonOptionArgs_;
    std::vector<std::string> unknownOptions_;
};

}  // namespace popl
