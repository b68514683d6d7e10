/// @file
/// The command line: what each subcommand declares of itself, and the check of what was typed.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

class Output;

/// What is wrong with a text that was typed; empty: nothing.
using Check = std::function<std::string(const std::string& text)>;

/// Refuses what is no number from @p least to @p most: "'TEXT' " and @p words.
Check checkNumber(double least, double most, const std::string& words);
Check checkWholeNumber(int least, int most, const std::string& words);
/// Refuses what is no number of seconds from @p least to 3600, with the words of @p what.
Check checkSeconds(double least, const std::string& what);
/// Refuses what is neither 1 nor 16 to 63.
std::string checkHostId(const std::string& text);

/// What one subcommand takes, or every subcommand. What was typed is left in the variables named, which
/// outlive the parsing.
class Syntax {
public:
    explicit Syntax(CLI::App& app) : m_app(&app) {}

    void flag(const std::string& names, bool& given, const std::string& help);
    /// @param Value std::string, a vector of them, int, unsigned int or double
    /// @param kind  what help shows for the value: "SECONDS"
    template <typename Value>
    void option(const std::string& names, Value& value, const std::string& kind, const std::string& help,
                const Check& check = {});
    /// As option(); without dashes in its name the word is known by its place.
    template <typename Value>
    void required(const std::string& names, Value& value, const std::string& kind, const std::string& help,
                  const Check& check = {});
    /// Of these two only one may be given.
    void exclude(const std::string& name, const std::string& other);
    /// The first may only be given with the other.
    void need(const std::string& name, const std::string& other);

private:
    CLI::App* m_app;
};

class CommandLine {
public:
    /// Runs a subcommand. @return its exit code
    using Run = std::function<int(Output&)>;

    CommandLine(const std::string& program, const std::string& description, const std::string& version);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// Those that stand before or after any subcommand.
    Syntax common();
    Syntax command(const std::string& name, const std::string& help, Run run);

    /// @return what the line asks to run; nothing: it has been answered with a text, on standard error where
    ///         it was refused, and @p exitCode says which
    std::optional<Run> parse(int argc, const char* const* argv, int& exitCode);

private:
    std::vector<std::string> commandNames() const;
    std::string whatCommand() const;

    std::unique_ptr<CLI::App> m_app;
    Run m_chosen;
};
