#pragma once

#include <string>

namespace CLI {
class App;
}

// The manual page and the completions of a program, made of what its parser knows: they cannot disagree with the
// program. Options of an empty group are hidden and left out.

namespace qxpbase {

struct ManHeading {
    const char* section;  // "1"
    const char* manual;   // what the section is called, as in "User Commands"
    const char* version;  // with the program's name
    const char* name;     // the line under NAME, as in "program - what it does"
};

/// The page, with the macros of man(7). A paragraph of the program's footer whose first line is a title of one or two
/// words and a ':' becomes a section; the other paragraphs are the examples. Indented lines stay as they are.
std::string ManPage(const CLI::App& program, const ManHeading& heading);

/// Both for a program that has sub-commands: for bash-completion, which loads a file of the program's name from its
/// directory "completions", and for zsh, as a function _PROGRAM on its path.
std::string BashCompletion(const CLI::App& program);
std::string ZshCompletion(const CLI::App& program);

}  // namespace qxpbase
