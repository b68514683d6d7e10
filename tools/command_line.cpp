#include "command_line.h"

#include "command.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

namespace {

template <typename Number>
Check checkRange(Number least, Number most, const std::string& words) {
    return [=](const std::string& text) {
        Number number{};
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        return isNumber && number >= least && number <= most ? "" : "'" + text + "' " + words;
    };
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

void Syntax::flag(const std::string& names, bool& given, const std::string& help) {
    m_app->add_flag(names, given, help);
}

template <typename Value>
void Syntax::option(const std::string& names, Value& value, const std::string& kind, const std::string& help,
                    const Check& check) {
    CLI::Option* option = m_app->add_option(names, value, help)->type_name(kind);
    if (check)
        option->check(check);
}

template <typename Value>
void Syntax::required(const std::string& names, Value& value, const std::string& kind,
                      const std::string& help, const Check& check) {
    option(names, value, kind, help, check);
    m_app->get_option(names)->required();
}

template void Syntax::option(const std::string&, std::string&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::option(const std::string&, int&, const std::string&, const std::string&, const Check&);
template void Syntax::option(const std::string&, unsigned int&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::option(const std::string&, double&, const std::string&, const std::string&,
                             const Check&);
template void Syntax::required(const std::string&, std::string&, const std::string&, const std::string&,
                               const Check&);
template void Syntax::required(const std::string&, int&, const std::string&, const std::string&,
                               const Check&);

void Syntax::exclude(const std::string& name, const std::string& other) {
    m_app->get_option(name)->excludes(m_app->get_option(other));
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
        const bool isOption = argc > 1 && argv[1][0] == '-' && !named;
        std::fprintf(stderr, "%s: %s (see %s --help)\n", m_app->get_name().c_str(),
                     named || isOption ? error.what() : ("name a command: " + commandNames()).c_str(),
                     m_app->get_name().c_str());
        exitCode = kUsage;
    }
    return std::nullopt;
}

std::string CommandLine::commandNames() const {
    std::string names;
    for (const CLI::App* command : m_app->get_subcommands([](const CLI::App*) { return true; }))
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}
