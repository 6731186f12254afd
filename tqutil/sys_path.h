// Paths in the form the system's wide file calls take at any length. Windows refuses a path of
// MAX_PATH (260) characters or more unless it carries the "\\?\" prefix (a library cannot count
// on its host having opted in to longer ones), and a cache directory deep in a user's profile
// with an entry's temporary name in it passes that. The prefix also turns off the system's own
// tidying of a path ("/" for "\", "." and "..", trailing dots and spaces, device names), so a
// path is first made absolute and tidied by the system itself (GetFullPathNameW), exactly as an
// unprefixed call would have done, and prefixed then.
//
// Every path gets the prefix, short ones too: they name the same file either way, and every
// file call then takes the one route that long paths need. Only the calls see the prefixed
// form; the paths and names that callers give and get back stay as they are. Internal to
// tqutil (not exported, not installed).
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace qv::sys_path {

// The prefixed form of `full`, an absolute path as GetFullPathNameW makes one: "C:\x" becomes
// "\\?\C:\x" and "\\server\share\x" becomes "\\?\UNC\server\share\x". A path that is in the
// system's own form already ("\\?\...", "\??\..."), names a device ("\\.\..."), or is none of
// these stays as it is. A pure function of the text, the same on every system.
std::wstring LongForm(std::wstring_view full);

#if defined(_WIN32)
// `path` as every wide file call of the system takes it: absolute, tidied and prefixed; a path
// in the system's own form ("\\?\...", "\??\...") is taken as it is, untidied, as the system
// takes it. False, with the last error set, when that cannot be made: a NUL inside the path
// (the system would read another file's name, the part before it) or an empty one.
bool ToSystem(const std::filesystem::path& path, std::wstring& out);
#endif

}  // namespace qv::sys_path
