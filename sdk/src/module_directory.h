#pragma once

#include <optional>
#include <string>

/// The directory of the module (program or shared library) that holds an address: absolute, without a trailing slash
/// unless it is "/" itself. Nothing when the module or its file is not known. May throw std::bad_alloc.
std::optional<std::string> ModuleDirectory(const void* pAddress);
