#pragma once

/// The directory of the module (program or shared library) that holds an address. Any thread.
/// @param szBuffer  receives the absolute path, without a trailing slash (but "/" for the root), NUL-terminated;
///                  unchanged on failure. It is the place of the file itself, with symbolic links resolved, whatever
///                  name the module was loaded by; also when the file has been replaced or removed since.
/// @param uLimit    the most characters to write, the NUL not counted: the buffer holds uLimit + 1 bytes.
/// @return false when the module is not known or the path is longer than uLimit.
extern "C" bool QxGetModuleFilePath(const void* pAddressInModule, char* szBuffer, unsigned int uLimit);
