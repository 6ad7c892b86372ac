#include "base/command_docs.h"

#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <vector>

namespace qxpbase {

namespace {

using Words = std::vector<std::string>;

std::string Join(const Words& words, const std::string& separator) {
    return fmt::format("{}", fmt::join(words, separator));
}

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char byte) { return std::toupper(byte); });
    return text;
}

/// An option, or an argument without an option's name.
struct Shown {
    Words names;        // with their dashes, long ones first; of an argument, its one name
    std::string value;  // as in "FILE"; empty for a flag
    Words choices;
    std::string description;  // on one line
    bool required;
    bool repeated;
};

Shown Describe(const CLI::Option& option) {
    Shown shown{{}, {}, {}, option.get_description(), option.get_required(), option.get_expected_max() > 1};
    shown.repeated |= option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
    std::replace(shown.description.begin(), shown.description.end(), '\n', ' ');  // they are for the columns of --help
    for (const std::string& name : option.get_lnames()) {
        shown.names.push_back("--" + name);
    }
    for (const std::string& name : option.get_snames()) {
        shown.names.push_back("-" + name);
    }
    if (option.get_positional()) {
        shown.names = {option.get_name(true)};
        shown.value = shown.names.front();
    } else if (!option.get_option_text().empty()) {
        shown.value = option.get_option_text();
    } else if (option.get_items_expected_max() != 0) {
        // A check for membership adds ":{one,two}" to the name of the value.
        const std::string type = option.get_type_name();
        const size_t choices = type.find(":{");
        shown.value = type.substr(0, choices);
        if (choices != std::string::npos) {
            shown.choices = CLI::detail::split(type.substr(choices + 2, type.size() - choices - 3), ',');
        }
    }
    return shown;
}

std::vector<Shown> OptionsOf(const CLI::App& app, bool positional) {
    std::vector<Shown> options;
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional() == positional && !option->get_group().empty()) {
            options.push_back(Describe(*option));
        }
    }
    return options;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& program) {
    return program.get_subcommands([](const CLI::App*) { return true; });
}

// Text for a line of its own (groff_man(7), "Portability").
std::string Roff(const std::string& text) {
    static const std::map<char, std::string> kEscapes = {{'\\', "\\e"},  {'-', "\\-"},   {'\'', "\\(aq"},
                                                         {'^', "\\(ha"}, {'~', "\\(ti"}, {'`', "\\(ga"}};
    std::string roff = text.starts_with('.') ? "\\&" : "";
    for (const char character : text) {
        const auto escape = kEscapes.find(character);
        roff += escape != kEscapes.end() ? escape->second : std::string(1, character);
    }
    // A long list of optional parts may be broken between them.
    return std::regex_replace(roff, std::regex("\\[,"), "\\:[,");
}

// Indented lines are a table or an example and stay as they are; the others are prose.
std::string RoffText(const std::string& text) {
    std::string page = text.empty() ? "" : ".PP\n";
    bool verbatim = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(' ') != verbatim) {
            verbatim = !verbatim;
            page += verbatim ? ".nf\n" : ".fi\n";
        }
        page += line.empty() ? ".PP\n" : Roff(line) + "\n";
    }
    return verbatim ? page + ".fi\n" : page;
}

std::string RoffOptions(const CLI::App& app, bool positional) {
    std::string page;
    for (const Shown& option : OptionsOf(app, positional)) {
        const std::string value = positional || option.value.empty() ? "" : " \\fI" + Roff(option.value) + "\\fR";
        page += fmt::format(".TP\n\\fB{}\\fR{}\n{}\n", Roff(Join(option.names, ", ")), value, Roff(option.description));
    }
    return page;
}

std::string Synopsis(const CLI::App& app, const std::string& name) {
    std::string text = fmt::format("\\fB{}\\fR [\\fIoptions\\fR]", name);
    for (const Shown& argument : OptionsOf(app, true)) {
        const std::string word = fmt::format("\\fI{}\\fR{}", argument.value, argument.repeated ? " .\\|.\\|." : "");
        text += argument.required ? " " + word : " [" + word + "]";
    }
    return text;
}

std::string RoffCommand(const CLI::App& command, const std::string& name) {
    std::string page =
        fmt::format(".SS \"{}\"\n{}\n.PP\n{}.\n", name, Synopsis(command, name), Roff(command.get_description()));
    return page + RoffOptions(command, true) + RoffOptions(command, false) + RoffText(command.get_footer());
}

std::string RoffSections(const std::string& footer) {
    std::string sections;
    std::string examples;
    static const std::regex kBlankLines("\n\n+");
    for (std::sregex_token_iterator paragraph(footer.begin(), footer.end(), kBlankLines, -1), end; paragraph != end;
         ++paragraph) {
        const std::string text = paragraph->str();
        const std::string title = text.substr(0, text.find(":\n"));
        if (title.size() == text.size() || std::count(title.begin(), title.end(), ' ') > 1) {
            examples += RoffText(text);
            continue;
        }
        sections += fmt::format(".SH \"{}\"\n{}", title == "Exit codes" ? "EXIT STATUS" : Upper(title),
                                RoffText(text.substr(title.size() + 2)));
    }
    return sections + (examples.empty() ? "" : ".SH EXAMPLES\n" + examples);
}

/// What a shell completes a value with. `choices` has {} for them.
struct Completers {
    const char *files, *directories, *choices, *text;
};
constexpr Completers kBash = {"-f", "-d", "-W '{}'", "-W ''"};
constexpr Completers kZsh = {"_files", "_files -/", "({})", " "};

std::string Completer(const Shown& option, const Completers& completers) {
    static const std::set<std::string> kFiles = {"FILE", "PATH", "PREFIX", "POLICY", "SCRIPT"};
    if (!option.choices.empty()) {
        return fmt::format(fmt::runtime(completers.choices), Join(option.choices, " "));
    }
    if (option.value == "DIR") {
        return completers.directories;
    }
    return kFiles.count(option.value) != 0 ? completers.files : completers.text;
}

constexpr const char* kBashScript = R"(# Completion for {program} in bash. Made by '{program} --generate bash'.

_{program}() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}} command='' word offer=(-W '')
    # bash splits --option=value in three.
    if [[ $current == = ]]; then
        current=''
    elif [[ $previous == = ]]; then
        previous=${{COMP_WORDS[COMP_CWORD - 2]}}
    fi
    for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
        case $word in {commands}) command=$word && break ;; esac
    done
    case $command,$previous,$current in
{offers}    esac
    [[ ${{offer[0]}} == -W ]] || compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "${{offer[@]}}" -- "$current")
}}

complete -F _{program} {program}
)";

// What is offered in a command: the values of its options, then their names, then what its arguments may be.
std::string BashOffers(const CLI::App& app, const std::string& command, std::string arguments) {
    std::string offers;
    Words names;
    for (const Shown& option : OptionsOf(app, false)) {
        names.insert(names.end(), option.names.begin(), option.names.end());
        if (!option.value.empty()) {
            const std::string pattern = fmt::format("{},{},*", command, Join(option.names, ",*|" + command + ","));
            offers += fmt::format("        {}) offer=({}) ;;\n", pattern, Completer(option, kBash));
        }
    }
    for (const Shown& argument : OptionsOf(app, true)) {
        arguments = Completer(argument, kBash);
    }
    return offers + fmt::format("        {0},*,-*) offer=(-W '{1}') ;;\n        {0},*) offer=({2}) ;;\n", command,
                                Join(names, " "), arguments);
}

constexpr const char* kZshScript = R"(#compdef {program}
# Completion for {program} in zsh. Made by '{program} --generate zsh'.

_{program}() {{
    local context state state_descr line
    typeset -A opt_args
    _arguments -C{arguments} \
        '1: :->command' \
        '*:: :->argument'
    case $state in
        command)
            local -a commands
            commands=(
{commands}            )
            _describe -t commands command commands
            ;;
        argument)
            case $words[1] in
{cases}            esac
            ;;
    esac
}}

_{program} "$@"
)";

// The text of a zsh description between brackets or colons, inside single quotes.
std::string ZshText(const std::string& text) {
    return std::regex_replace(std::regex_replace(text, std::regex(R"([\[\]:\\])"), "\\$&"), std::regex("'"), "'\\''");
}

// The entries for _arguments: one for each name of an option, then the arguments.
std::string ZshArguments(const CLI::App& app, size_t indent) {
    std::string text;
    for (const Shown& option : OptionsOf(app, false)) {
        const std::string excluded = option.repeated ? "*" : fmt::format("({})", Join(option.names, " "));
        for (const std::string& name : option.names) {
            const bool has_value = !option.value.empty();
            text += fmt::format(" \\\n{:{}}'{}{}{}[{}]{}'", "", indent, excluded, name,
                                !has_value               ? ""
                                : name.starts_with("--") ? "="
                                                         : "+",
                                ZshText(option.description),
                                has_value ? ":" + ZshText(option.value) + ":" + Completer(option, kZsh) : "");
        }
    }
    for (const Shown& argument : OptionsOf(app, true)) {
        text += fmt::format(" \\\n{:{}}'{}:{}:{}'", "", indent, argument.repeated ? "*" : "", ZshText(argument.value),
                            Completer(argument, kZsh));
    }
    return text;
}

}  // namespace

std::string ManPage(const CLI::App& program, const ManHeading& heading) {
    const std::string& name = program.get_name();
    std::string synopsis;
    std::string commands;
    for (const CLI::App* const command : CommandsOf(program)) {
        const std::string whole_name = name + " " + command->get_name();
        synopsis += Synopsis(*command, whole_name) + "\n.br\n";
        commands += RoffCommand(*command, whole_name);
    }
    std::string page = fmt::format(".\\\" Made by '{} --generate man'.\n.TH {} {} \"\" \"{}\" \"{}\"\n.ad l\n.nh\n",
                                   name, Upper(name), heading.section, heading.version, heading.manual);
    page += fmt::format(".SH NAME\n{}\n.SH SYNOPSIS\n{}.SH DESCRIPTION\n", Roff(heading.name),
                        synopsis.empty() ? Synopsis(program, name) + "\n" : synopsis);
    page += RoffText(program.get_description()) + ".SH OPTIONS\n" + RoffOptions(program, false);
    page += commands.empty() ? "" : ".SH COMMANDS\n" + commands;
    return page + RoffSections(program.get_footer());
}

std::string BashCompletion(const CLI::App& program) {
    Words names;
    std::string offers;
    for (const CLI::App* const command : CommandsOf(program)) {
        names.push_back(command->get_name());
        offers += BashOffers(*command, command->get_name(), "-W ''");
    }
    offers += BashOffers(program, "", fmt::format("-W '{}'", Join(names, " ")));
    return fmt::format(kBashScript, fmt::arg("program", program.get_name()), fmt::arg("commands", Join(names, "|")),
                       fmt::arg("offers", offers));
}

std::string ZshCompletion(const CLI::App& program) {
    std::string commands;
    std::string cases;
    for (const CLI::App* const command : CommandsOf(program)) {
        const std::string& name = command->get_name();
        commands += fmt::format("{:16}'{}:{}'\n", "", name, ZshText(command->get_description()));
        cases += fmt::format("{0:16}{1})\n{0:20}_arguments -s{2}\n{0:20};;\n", "", name, ZshArguments(*command, 24));
    }
    return fmt::format(kZshScript, fmt::arg("program", program.get_name()),
                       fmt::arg("arguments", ZshArguments(program, 8)), fmt::arg("commands", commands),
                       fmt::arg("cases", cases));
}

}  // namespace qxpbase
