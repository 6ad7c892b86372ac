#include "ctl/terminal/command_model.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

namespace qxpctl {

namespace {

// Descriptions hold line breaks for the columns of --help.
std::string OnOneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// A check for membership adds ":{one,two}" to the name of the value.
std::vector<std::string> ChoicesOf(const std::string& type_name) {
    const size_t begin = type_name.find('{');
    const size_t end = type_name.find('}');
    std::vector<std::string> choices;
    if (begin == std::string::npos || end == std::string::npos) {
        return choices;
    }
    std::istringstream list(type_name.substr(begin + 1, end - begin - 1));
    for (std::string choice; std::getline(list, choice, ',');) {
        choices.push_back(choice);
    }
    return choices;
}

ValueKind KindOf(const std::string& value) {
    if (value == "DIR") {
        return ValueKind::kDirectory;
    }
    const bool file = value == "FILE" || value == "PATH" || value == "PREFIX" || value == "POLICY" || value == "SCRIPT";
    return file ? ValueKind::kFile : ValueKind::kText;
}

OptionModel ReadOption(const CLI::Option& option) {
    OptionModel model;
    for (const std::string& name : option.get_lnames()) {
        model.names.push_back("--" + name);
    }
    for (const std::string& name : option.get_snames()) {
        model.names.push_back("-" + name);
    }
    if (model.names.empty()) {
        model.names.push_back(option.get_name(true));
    }
    model.description = OnOneLine(option.get_description());
    model.required = option.get_required();
    model.repeated =
        option.get_expected_max() > 1 || option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
    if (option.get_items_expected_max() == 0) {
        return model;
    }
    const std::string type = option.get_type_name();
    model.value = option.get_positional() ? model.names.front() : type.substr(0, type.find(':'));
    model.choices = ChoicesOf(type);
    model.kind = model.choices.empty() ? KindOf(model.value) : ValueKind::kChoice;
    return model;
}

}  // namespace

CommandModel ReadCommandModel(const CLI::App& app) {
    CommandModel model;
    model.name = app.get_name();
    model.description = app.get_description();
    model.footer = app.get_footer();
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional()) {
            model.positionals.push_back(ReadOption(*option));
        } else if (!option->get_group().empty()) {
            model.options.push_back(ReadOption(*option));
        }
    }
    for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
        model.commands.push_back(ReadCommandModel(*command));
    }
    return model;
}

}  // namespace qxpctl
