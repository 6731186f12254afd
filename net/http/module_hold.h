// Keeps the library's module loaded while a thread of its own runs. A Windows host that unloads
// the library while such a thread lives would have it ended from the unload, under the loader
// lock, which that thread needs to end: the unload would wait for ever, and a thread left running
// would run code that is gone. While a hold is taken the host's FreeLibrary only drops its own
// reference; the last release, made where the library ends its threads on the host's request,
// lets the module go. Nothing happens on other systems. Internal to the library.
#pragma once

namespace qv::net::detail {

// Counted: the module is held from the first hold to the matching last release. Never release
// from a static destructor: at process exit nothing may unload the module.
void HoldModule();
void ReleaseModule();

}  // namespace qv::net::detail
