#include "command_line.h"

#include "command.h"
#include "table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <type_traits>

namespace {

template <typename Number>
Check checkRange(Number least, Number most, const std::string& words) {
    return [=](const std::string& text) {
        Number number{};
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        return isNumber && number >= least && number <= most ? "" : "'" + text + "' " + words;
    };
}

/// How many letters were typed wrongly, left out, put in, or swapped with the next one.
std::size_t slips(const std::string& typed, const std::string& meant) {
    std::vector<std::vector<std::size_t>> best(typed.size() + 1, std::vector<std::size_t>(meant.size() + 1));
    for (std::size_t i = 0; i <= typed.size(); ++i)
        for (std::size_t j = 0; j <= meant.size(); ++j) {
            if (i == 0 || j == 0) {
                best[i][j] = i + j;
                continue;
            }
            best[i][j] = std::min({best[i - 1][j] + 1, best[i][j - 1] + 1,
                                   best[i - 1][j - 1] + (typed[i - 1] == meant[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && typed[i - 1] == meant[j - 2] && typed[i - 2] == meant[j - 1])
                best[i][j] = std::min(best[i][j], best[i - 2][j - 2] + 1);
        }
    return best[typed.size()][meant.size()];
}

/// "020" as people mean it; it would be read as an octal number.
std::string withoutLeadingZeros(const std::string& text) {
    const std::size_t first = text.find_first_not_of('0');
    return first != std::string::npos && text.find_first_not_of("0123456789") == std::string::npos
               ? text.substr(first)
               : text;
}

} // namespace

Check checkNumber(double least, double most, const std::string& words) {
    return checkRange(least, most, words);
}

Check checkWholeNumber(int least, int most, const std::string& words) {
    return checkRange(least, most, words);
}

Check checkSeconds(double least, const std::string& what) {
    return checkNumber(least, 3600, "is no " + what + ": seconds, up to 3600");
}

std::string checkHostId(const std::string& text) {
    static const Check check = checkWholeNumber(16, 63, "is no host id: 1, or 16 to 63");
    return text == "1" ? "" : check(text);
}

void Syntax::flag(const std::string& names, bool& given, const std::string& help) {
    m_app->add_flag(names, given, help);
}

template <typename Value>
void Syntax::option(const std::string& names, Value& value, const std::string& kind, const std::string& help,
                    const Check& check) {
    CLI::Option* option = m_app->add_option(names, value, help)->type_name(kind);
    if constexpr (std::is_integral_v<Value>)
        option->transform(&withoutLeadingZeros);
    if (check)
        option->check(check);
}

template <typename Value>
void Syntax::required(const std::string& names, Value& value, const std::string& kind,
                      const std::string& help, const Check& check) {
    option(names, value, kind, help, check);
    m_app->get_option(names.substr(names.rfind(',') + 1))->required(); // the longer one
}

template void Syntax::option(const std::string&, std::string&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::option(const std::string&, int&, const std::string&, const std::string&, const Check&);
template void Syntax::option(const std::string&, unsigned int&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::option(const std::string&, double&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::option(const std::string&, std::vector<std::string>&, const std::string&,
                             const std::string&, const Check&);
template void Syntax::required(const std::string&, std::string&, const std::string&, const std::string&,
                               const Check&);
template void Syntax::required(const std::string&, int&, const std::string&, const std::string&,
                               const Check&);

void Syntax::exclude(const std::string& name, const std::string& other) {
    m_app->get_option(name)->excludes(m_app->get_option(other));
}

void Syntax::need(const std::string& name, const std::string& other) {
    m_app->get_option(name)->needs(m_app->get_option(other));
}

CommandLine::CommandLine(const std::string& program, const std::string& description,
                         const std::string& version)
    : m_app(std::make_unique<CLI::App>(description, program)) {
    m_app->set_version_flag("--version", program + " " + version, "Print the version and exit");
    m_app->require_subcommand(1);
    m_app->fallthrough();
}

CommandLine::~CommandLine() = default;

Syntax CommandLine::common() {
    return Syntax(*m_app);
}

Syntax CommandLine::command(const std::string& name, const std::string& help, Run run) {
    CLI::App* command = m_app->add_subcommand(name, help);
    command->callback([this, run = std::move(run)] { m_chosen = run; });
    return Syntax(*command);
}

std::optional<CommandLine::Run> CommandLine::parse(int argc, const char* const* argv, int& exitCode) {
    try {
        m_app->parse(argc, argv);
        return m_chosen;
    } catch (const CLI::Success& help) {
        exitCode = m_app->exit(help);
        if (!std::cout.flush()) {
            std::fprintf(stderr, "%s: cannot write the output\n", m_app->get_name().c_str());
            exitCode = kNothingFound;
        }
    } catch (const CLI::ParseError& error) {
        const bool named = !m_app->get_subcommands().empty();
        const bool isMissing = !named && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
        std::fprintf(stderr, "%s: %s (see %s --help)\n", m_app->get_name().c_str(),
                     (isMissing ? whatCommand() : printable(error.what())).c_str(),
                     m_app->get_name().c_str());
        exitCode = kUsage;
    }
    return std::nullopt;
}

std::vector<std::string> CommandLine::commandNames() const {
    std::vector<std::string> names;
    for (const CLI::App* command : m_app->get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

/// What is said where no command is known by what was typed.
std::string CommandLine::whatCommand() const {
    constexpr std::size_t kSlips = 2;
    const std::vector<std::string> names = commandNames();
    std::string list;
    for (const std::string& name : names)
        list += (list.empty() ? "" : ", ") + name;
    const std::vector<std::string> typed = m_app->remaining();
    if (typed.empty())
        return "name a command: " + list;
    if (typed.front().starts_with('-'))
        return "no option '" + printable(typed.front()) + "'";
    const auto nearest = std::ranges::min_element(
        names, {}, [&](const std::string& name) { return slips(typed.front(), name); });
    const bool isNear = slips(typed.front(), *nearest) <= kSlips;
    return "no command '" + printable(typed.front()) + "'; " +
           (isNear ? "did you mean " + *nearest + "?" : "there are: " + list);
}
