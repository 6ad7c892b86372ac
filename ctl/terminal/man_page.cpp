#include <sstream>

#include "ctl/terminal/command_model.h"

namespace qxpctl {

namespace {

// Text for a line of its own (groff_man(7), "Portability").
std::string Escape(const std::string& text) {
    std::string escaped;
    for (size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '\\') {
            escaped += "\\e";
        } else if (text.compare(at, 2, "[,") == 0) {
            // A long list of optional parts may be broken between them.
            escaped += "\\:[";
        } else if (c == '-') {
            escaped += "\\-";
        } else if (c == '\'') {
            escaped += "\\(aq";
        } else if (c == '^') {
            escaped += "\\(ha";
        } else if (c == '~') {
            escaped += "\\(ti";
        } else if (c == '`') {
            escaped += "\\(ga";
        } else {
            escaped += c;
        }
    }
    return !escaped.empty() && escaped.front() == '.' ? "\\&" + escaped : escaped;
}

std::vector<std::vector<std::string>> Paragraphs(const std::string& text) {
    std::vector<std::vector<std::string>> paragraphs(1);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            paragraphs.back().push_back(line);
        } else if (!paragraphs.back().empty()) {
            paragraphs.emplace_back();
        }
    }
    if (paragraphs.back().empty()) {
        paragraphs.pop_back();
    }
    return paragraphs;
}

// Indented lines are a table or an example and stay as they are; the others are prose.
std::string ParagraphText(const std::vector<std::string>& lines) {
    std::string text = ".PP\n";
    bool verbatim = false;
    for (const std::string& line : lines) {
        const bool indented = line.front() == ' ';
        if (indented != verbatim) {
            text += indented ? ".nf\n" : ".fi\n";
        }
        verbatim = indented;
        text += Escape(line) + "\n";
    }
    return verbatim ? text + ".fi\n" : text;
}

std::string OptionText(const OptionModel& option) {
    std::string names;
    for (const std::string& name : option.names) {
        names += (names.empty() ? "\\fB" : ", \\fB") + Escape(name) + "\\fR";
    }
    if (option.kind != ValueKind::kNone && option.value != option.names.front()) {
        names += " \\fI" + Escape(option.value) + "\\fR";
    }
    std::string choices;
    for (const std::string& choice : option.choices) {
        choices += (choices.empty() ? "" : " or ") + choice;
    }
    const bool told = choices.empty() || option.description.find(choices) != std::string::npos;
    return ".TP\n" + names + "\n" + Escape(option.description) + (told ? "" : ": " + Escape(choices)) + "\n";
}

std::string Synopsis(const CommandModel& command) {
    std::string text = "\\fBqxpctl " + command.name + "\\fR [\\fIoptions\\fR]";
    for (const OptionModel& argument : command.positionals) {
        const std::string word = "\\fI" + argument.value + "\\fR" + (argument.repeated ? " .\\|.\\|." : "");
        text += argument.required ? " " + word : " [" + word + "]";
    }
    return text;
}

std::string CommandText(const CommandModel& command) {
    std::string text =
        ".SS \"qxpctl " + command.name + "\"\n" + Synopsis(command) + "\n.PP\n" + Escape(command.description) + ".\n";
    for (const OptionModel& argument : command.positionals) {
        text += OptionText(argument);
    }
    for (const OptionModel& option : command.options) {
        text += OptionText(option);
    }
    for (const auto& paragraph : Paragraphs(command.footer)) {
        text += ParagraphText(paragraph);
    }
    return text;
}

// The footer of the whole program: two of its paragraphs are sections of a manual page.
std::string Sections(const std::string& footer) {
    std::string examples;
    std::string others;
    for (std::vector<std::string> paragraph : Paragraphs(footer)) {
        const std::string title = paragraph.front() == "Exit codes:"    ? "EXIT STATUS"
                                  : paragraph.front() == "Environment:" ? "ENVIRONMENT"
                                                                        : "";
        if (title.empty()) {
            examples += ParagraphText(paragraph);
            continue;
        }
        paragraph.erase(paragraph.begin());
        others += ".SH \"" + title + "\"\n" + ParagraphText(paragraph);
    }
    return others + ".SH EXAMPLES\n" + examples;
}

}  // namespace

std::string ManPage(const CommandModel& program, const std::string& version) {
    std::string text = R"(.\" Made by 'qxpctl --generate man'.
.TH QXPCTL 1 "" ")" + version +
                       R"(" "User Commands"
.ad l
.nh
.SH NAME
qxpctl \- sign maintenance scripts, have them run, see the results
.SH SYNOPSIS
)";
    for (const CommandModel& command : program.commands) {
        text += Synopsis(command) + "\n.br\n";
    }
    text += ".SH DESCRIPTION\n" + Escape(program.description) + "\n.SH OPTIONS\n";
    for (const OptionModel& option : program.options) {
        text += OptionText(option);
    }
    text += ".SH COMMANDS\n";
    for (const CommandModel& command : program.commands) {
        text += CommandText(command);
    }
    return text + Sections(program.footer);
}

}  // namespace qxpctl
