#include <string_view>

#include "ctl/terminal/command_model.h"

namespace qxpctl {

namespace {

std::string Join(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : std::string(separator)) + word;
    }
    return text;
}

std::string BashAction(const OptionModel& option) {
    switch (option.kind) {
        case ValueKind::kFile:
            return "_qxpctl_files -f";
        case ValueKind::kDirectory:
            return "_qxpctl_files -d";
        case ValueKind::kChoice:
            return "_qxpctl_words '" + Join(option.choices, " ") + "'";
        case ValueKind::kText:
        case ValueKind::kNone:
            break;
    }
    return ":";
}

// One case a command: the values of its options, then its options, then its arguments.
std::string BashCommand(const CommandModel& command) {
    std::string text = "        " + command.name + ")\n            case $previous in\n";
    std::vector<std::string> names;
    for (const OptionModel& option : command.options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
        if (option.kind != ValueKind::kNone) {
            text += "                " + Join(option.names, "|") + ") " + BashAction(option) + "; return ;;\n";
        }
    }
    text += "            esac\n            case $current in\n                -*) _qxpctl_words '" + Join(names, " ") +
            "' ;;\n";
    if (!command.positionals.empty()) {
        text += "                *) " + BashAction(command.positionals.front()) + " ;;\n";
    }
    return text + "            esac\n            ;;\n";
}

constexpr std::string_view kBashHead = R"(# Completion for qxpctl in bash. Made by 'qxpctl --generate bash'.

_qxpctl_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current")
}

_qxpctl_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "$1" -- "$current")
}

_qxpctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' at
    # bash splits --option=value in three.
    if [[ $current == = ]]; then
        current=''
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    COMPREPLY=()
    for ((at = 1; at < COMP_CWORD; at++)); do
        case ${COMP_WORDS[at]} in
)";

// The text of a zsh description between brackets or colons, inside single quotes.
std::string ZshText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\'') {
            escaped += "'\\''";
        } else if (std::string_view("[]:\\").find(c) != std::string_view::npos) {
            escaped += std::string("\\") + c;
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string ZshAction(const OptionModel& option) {
    switch (option.kind) {
        case ValueKind::kFile:
            return "_files";
        case ValueKind::kDirectory:
            return "_files -/";
        case ValueKind::kChoice:
            return "(" + Join(option.choices, " ") + ")";
        case ValueKind::kText:
        case ValueKind::kNone:
            break;
    }
    return " ";
}

// One entry for _arguments for each name of the option.
std::string ZshOption(const OptionModel& option, const std::string& indent) {
    std::string text;
    const std::string excluded = option.repeated ? "*" : "(" + Join(option.names, " ") + ")";
    for (const std::string& name : option.names) {
        text.append(" \\\n").append(indent).append("'").append(excluded).append(name);
        if (option.kind != ValueKind::kNone) {
            text += name.starts_with("--") ? "=" : "+";
        }
        text += "[" + ZshText(option.description) + "]";
        if (option.kind != ValueKind::kNone) {
            text += ":" + ZshText(option.value) + ":" + ZshAction(option);
        }
        text += "'";
    }
    return text;
}

std::string ZshCommand(const CommandModel& command) {
    const std::string indent(20, ' ');
    std::string text = "                " + command.name + ")\n                    _arguments -s";
    for (const OptionModel& option : command.options) {
        text += ZshOption(option, indent + "    ");
    }
    for (const OptionModel& argument : command.positionals) {
        text += " \\\n" + indent + "    '" + (argument.repeated ? "*:" : ":") + ZshText(argument.value) + ":" +
                ZshAction(argument) + "'";
    }
    return text + "\n                    ;;\n";
}

}  // namespace

std::string BashCompletion(const CommandModel& program) {
    std::string text(kBashHead);
    std::vector<std::string> names;
    std::string values;
    for (const OptionModel& option : program.options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
        if (option.kind != ValueKind::kNone) {
            values += (values.empty() ? "" : "|") + Join(option.names, "|");
        }
    }
    std::vector<std::string> commands;
    for (const CommandModel& command : program.commands) {
        commands.push_back(command.name);
    }
    if (!values.empty()) {
        text += "            " + values + ") at=$((at + 1)) ;;\n";
    }
    text +=
        "            -*) ;;\n            *)\n                command=${COMP_WORDS[at]}\n                break\n"
        "                ;;\n        esac\n    done\n    case $command in\n        '')\n            case $previous "
        "in\n";
    for (const OptionModel& option : program.options) {
        if (option.kind != ValueKind::kNone) {
            text += "                " + Join(option.names, "|") + ") " + BashAction(option) + "; return ;;\n";
        }
    }
    text += "            esac\n            case $current in\n                -*) _qxpctl_words '" + Join(names, " ") +
            "' ;;\n                *) _qxpctl_words '" + Join(commands, " ") +
            "' ;;\n            esac\n            ;;\n";
    for (const CommandModel& command : program.commands) {
        text += BashCommand(command);
    }
    return text + "    esac\n}\n\ncomplete -F _qxpctl qxpctl\n";
}

std::string ZshCompletion(const CommandModel& program) {
    std::string text =
        "#compdef qxpctl\n# Completion for qxpctl in zsh. Made by 'qxpctl --generate zsh'.\n\n_qxpctl() {\n"
        "    local context state state_descr line\n    typeset -A opt_args\n    _arguments -C";
    for (const OptionModel& option : program.options) {
        text += ZshOption(option, "        ");
    }
    text +=
        " \\\n        '1: :->command' \\\n        '*:: :->argument'\n    case $state in\n        command)\n"
        "            local -a commands\n            commands=(\n";
    for (const CommandModel& command : program.commands) {
        text += "                '" + command.name + ":" + ZshText(command.description) + "'\n";
    }
    text +=
        "            )\n            _describe -t commands command commands\n            ;;\n        argument)\n"
        "            case $words[1] in\n";
    for (const CommandModel& command : program.commands) {
        text += ZshCommand(command);
    }
    return text + "            esac\n            ;;\n    esac\n}\n\n_qxpctl \"$@\"\n";
}

}  // namespace qxpctl
