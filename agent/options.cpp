#include "agent/options.h"

#include <iostream>

#include "agent/command_line.h"

namespace qxpagent {

std::optional<Options> ParseOptions(int argc, char** argv, const Installation& installation, int& exit_code) {
    const auto command_line = ParseCommandLine(argc, argv, installation, exit_code);
    if (!command_line.has_value()) {
        return std::nullopt;
    }
    LoadedOptions loaded = LoadOptions(*command_line, installation);
    if (command_line->check_config || !loaded.mistakes.empty()) {
        exit_code = CheckConfig(*command_line, installation);
        return std::nullopt;
    }
    return std::move(loaded.options);
}

}  // namespace qxpagent
