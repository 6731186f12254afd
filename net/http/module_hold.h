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

// Set by tqnetwork.dll's entry point as the process ends (ExitProcess, or a return from the
// host's main). Windows has then ended every other thread wherever it was, holding a lock or
// waiting on a condition, before the DLL's static destructors run: a destructor that joins,
// locks or wakes what those threads held waits for ever, and the process never ends. Objects
// that own threads are left as they are then. Never set on other systems, in a program the
// library is linked into (its statics go while its threads still run), or on an unload.
void NoteProcessEnding();
bool ProcessEnding();

}  // namespace qv::net::detail
