#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/stat.h>
#endif

#include <chrono>
#include <cstdio>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/read_all.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"
#include "tests/tqutil/test_files.h"
#include "tqutil/file_protocol.h"
#include "tqutil/file_streams.h"
#include "tqutil/file_url.h"
#include "tqutil/streams.h"
#include "tqutil/sys_file.h"
#include "tqutil/sys_path.h"
#include "tqutil/url.h"

namespace {

using qv::io::StreamPosition;
using F = TqUSysFile;
using Path = std::filesystem::path;
using tq::test::OpenDescriptors;
using tq::test::PlantLink;
using tq::test::ReadAll;
using tq::test::ReadFileBytes;
using tq::test::WriteFileBytes;

struct Mode {
  std::uint32_t access, share, creation;
};
constexpr Mode kRead{F::kAccessRead, F::kShareRead, F::kOpenExisting};
constexpr Mode kCreate{F::kAccessWrite, F::kShareNone, F::kCreateAlways};
constexpr Mode kRewrite{F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite};
constexpr Mode kOpenAlways{F::kAccessWrite, F::kShareNone, F::kOpenAlways};

// An open of dir/name through its path, or through TqUSysDirectory's names; closed at the end
// of the scope.
struct Open {
  Open(const Path& dir, const Path& name, Mode m, bool by_name = false)
      : h(by_name ? TqUSysDirectory(dir).OpenFile(name.c_str(), m.access, m.share, m.creation, 0, 0)
                  : F::OpenFile(dir / name, m.access, m.share, m.creation, 0, 0)) {}
  ~Open() { F::CloseFile(h); }
  Open(const Open&) = delete;
  explicit operator bool() const { return h != nullptr; }
  bool Write(const std::string& s) const {
    std::uint64_t n = 0;
    return F::WriteFile(h, s.data(), s.size(), &n) && n == s.size();
  }
  F::Handle h;
};

const char* NoLinkReason() {
  return tq::test::IsWine() ? "Wine makes no symbolic links (tests/WINDOWS.md)"
                            : "this account may not make symbolic links";
}

// TqUSysDirectory::ReadStart of `name` in `dir` into a buffer of `size`: the bytes read, or
// "<refused>".
std::string Start(const Path& dir, const Path& name, std::size_t size) {
  std::string buffer(size, '\0');
  const std::int64_t got = TqUSysDirectory(dir).ReadStart(name.c_str(), buffer.data(), size);
  if (got < 0) return "<refused>";
  EXPECT_LE(static_cast<std::size_t>(got), size);
  buffer.resize(static_cast<std::size_t>(got));
  return buffer;
}

// Two opens of one file (the cache's processes each hold one; the locks are per open, so one
// process shows the rules): a writer excludes everyone, readers exclude writers.
TEST(SysFileTest, AWriterExcludesEveryOtherOpenAndReadersExcludeWriters) {
  tq::test::TempDir dir;
  const std::tuple<Mode, Mode, bool> cases[] = {
      {kCreate, kRead, false}, {kCreate, kCreate, false}, {kCreate, kRewrite, false},
      {kRead, kRead, true},    {kRead, kRewrite, false},  {kRead, kCreate, false}};
  for (const auto& [held, other, opens] : cases) {
    SCOPED_TRACE(std::to_string(held.access) + " then " + std::to_string(other.access) + ", " +
                 std::to_string(other.creation));
    WriteFileBytes(dir / "entry.tmp", "old body");
    const Open first(dir.path(), "entry.tmp", held);
    const bool writer = held.access == F::kAccessWrite;
    ASSERT_TRUE(first && (!writer || first.Write("winner's body")));
    EXPECT_EQ(bool(Open(dir.path(), "entry.tmp", other)), opens);
    EXPECT_EQ(bool(Open(dir.path(), "entry.tmp", other, true)), opens) << "by name";
    // A first read of the file (the clean-up's) is kept out by a writer, never by a reader.
    EXPECT_EQ(Start(dir.path(), "entry.tmp", 4) == "<refused>", writer);
#if !defined(_WIN32)  // Windows lets nobody read a file that its writer holds alone
    // Regression: the loser of a race for the same temporary file must not truncate the
    // winner's half-written body.
    EXPECT_EQ(ReadFileBytes(dir / "entry.tmp"), writer ? "winner's body" : "old body");
#endif
  }
  const Open creator(dir.path(), "entry.tmp", kCreate);
  EXPECT_EQ(F::GetFileSize(creator.h), 0) << "create-always empties the file once it holds it";
}

// A file renamed over a writer's name between its open and its lock (through the open hook)
// is never written through it: the writer is refused, as the file it locked is no longer the
// path's. Windows applies the sharing as it opens, so there the rename itself fails. Without
// the rename the open succeeds. A file being created is never found at its name before its
// creator holds it: a reader would take it, empty, for a stale one and delete it, and the
// creator would be refused.
TEST(SysFileTest, AFileRenamedOverAWritersNameDuringItsOpenIsNeverWrittenThroughIt) {
  tq::test::TempDir dir;
  const auto path = dir / "entry";
  for (const bool by_name : {false, true}) {
    std::filesystem::remove(path);
    int calls = 0;
    std::string seen;
    F::SetOpenHookForTesting([&] {
      if (++calls == 1) {
        seen = Open(dir.path(), "entry", kRead) ? "opened" : Start(dir.path(), "entry", 4);
      }
    });
    {
      const Open created(dir.path(), "entry", kCreate, by_name);
      F::SetOpenHookForTesting({});
      EXPECT_EQ(seen, "<refused>") << by_name << ": a reader found it before its creator held it";
      EXPECT_TRUE(created.Write("body"));
    }
    EXPECT_EQ(ReadFileBytes(path), "body");
  }
  for (const bool rename : {true, false}) {
    SCOPED_TRACE(rename ? "renamed" : "not renamed");
    WriteFileBytes(path, "old");
    WriteFileBytes(dir / "new", "new");
    int calls = 0;
    std::error_code rename_error;
    F::SetOpenHookForTesting([&] {
      if (++calls == 1 && rename) std::filesystem::rename(dir / "new", path, rename_error);
    });
    const bool opened = bool(Open(dir.path(), "entry", kRewrite));
    F::SetOpenHookForTesting({});
    EXPECT_EQ(calls, 1);
#if defined(_WIN32)
    EXPECT_EQ(bool(rename_error), rename) << "the open writer holds its name";
    EXPECT_TRUE(opened);
    EXPECT_EQ(ReadFileBytes(path), "old");
#else
    EXPECT_EQ(opened, !rename);
    EXPECT_EQ(ReadFileBytes(path), rename ? "new" : "old");
#endif
  }
#if !defined(_WIN32)
  // A held file removed by a name that another file has taken since leaves that other file.
  for (const bool renamed : {true, false}) {
    SCOPED_TRACE(renamed ? "name taken" : "name kept");
    WriteFileBytes(path, "held");
    const Open held(dir.path(), "entry", kRewrite);
    if (renamed) {
      WriteFileBytes(dir / "new", "new");
      std::filesystem::rename(dir / "new", path);
    }
    std::error_code ec;
    EXPECT_EQ(F::RemoveHeldFile(held.h, path, ec), !renamed);
    EXPECT_FALSE(ec) << ec.message();
    EXPECT_EQ(std::filesystem::exists(path), renamed);
  }
#endif
}

// What an open may find at a name in a directory others may write to, through a path and
// through TqUSysDirectory's names: only regular files open, links are never followed, and a
// temporary name is made anew without touching what was there.
TEST(SysFileTest, OnlyRegularFilesOpenAndLinksAreNeverFollowed) {
  tq::test::TempDir outside;
  const Path target = outside / "target";  // what a planted link points at: never touched
  bool links = true;
  for (const bool by_name : {false, true}) {
    SCOPED_TRACE(by_name ? "by name" : "by path");
    tq::test::TempDir dir;
    const auto opens = [&](const Path& name, Mode m, const std::string& write = "") {
      const Open open(dir.path(), name, m, by_name);
      EXPECT_TRUE(!open || write.empty() || open.Write(write));
      return bool(open);
    };
    WriteFileBytes(target, "precious");

    // A stale temporary file that shares its data with a name outside through a hard link:
    // removed and created anew, never emptied in place; for the owner alone.
    std::filesystem::create_hard_link(target, dir / "entry.tmp");
    EXPECT_TRUE(opens("entry.tmp", kCreate));
    EXPECT_EQ(std::filesystem::file_size(dir / "entry.tmp"), 0u);
    EXPECT_EQ(ReadFileBytes(target), "precious");
#if !defined(_WIN32)  // Windows files have access lists, not modes
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(dir / "entry.tmp").permissions() & perms::all,
              perms::owner_read | perms::owner_write);
#endif
    // A read-only stale temporary file does not block its name.
    WriteFileBytes(dir / "stale.tmp", "stale");
    std::filesystem::permissions(dir / "stale.tmp", std::filesystem::perms::owner_read);
    EXPECT_TRUE(opens("stale.tmp", kCreate));
    EXPECT_EQ(std::filesystem::file_size(dir / "stale.tmp"), 0u);
    // A directory at a temporary name is neither removed nor opened.
    std::filesystem::create_directory(dir / "sub.tmp");
    EXPECT_FALSE(opens("sub.tmp", kCreate));
    EXPECT_FALSE(opens("sub.tmp", kRead));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "sub.tmp"));
    if (!by_name) {
      // A NUL inside a path would leave the system the part before it, another file's name:
      // such a path names nothing, and the file before the NUL is neither opened, emptied,
      // renamed nor removed.
      WriteFileBytes(dir / "kept", "precious");
      Path::string_type text = (dir / "kept").native();
      text += Path::value_type{};
      text += Path("x").native();
      const Path nul(text);
      for (const Mode m : {kRead, kRewrite, kOpenAlways, kCreate}) {
        EXPECT_FALSE(opens(nul.filename(), m)) << m.creation;
      }
      EXPECT_EQ(F::OpenNamedFile(nul), nullptr);
      std::error_code ec;
      // Each call says it did nothing, and sets the error.
      const auto refused = [&ec](bool nothing_done) {
        return nothing_done && std::exchange(ec, {});
      };
      EXPECT_TRUE(refused(F::KindOfName(nul, ec) == F::NameKind::kNone));
      EXPECT_TRUE(refused(!F::RenameFile(nul, dir / "moved", ec)));
      EXPECT_TRUE(refused(!F::RenameFile(dir / "stale.tmp", nul, ec)));
      EXPECT_TRUE(refused(!F::RemoveFile(nul, ec)));
      EXPECT_TRUE(refused(TqUSysDirectory::RemoveTree(nul, ec) == 0u));
      EXPECT_EQ(ReadFileBytes(dir / "kept"), "precious");
      EXPECT_TRUE(std::filesystem::exists(dir / "stale.tmp"));
      EXPECT_FALSE(std::filesystem::exists(dir / "moved"));
    }
#if !defined(_WIN32)  // a Windows directory holds no FIFO (named pipes live in \\.\pipe\)
    // A FIFO: every kind of open comes back at once, refused (one that waits for a writer
    // hangs here); creating one replaces it.
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const Mode m : {kRead, Mode{F::kAccessRead, F::kShareNone, F::kOpenExisting}, kRewrite,
                         kOpenAlways}) {
      EXPECT_FALSE(opens("fifo", m)) << m.access << " " << m.share << " " << m.creation;
    }
    EXPECT_EQ(Start(dir.path(), "fifo", 16), "<refused>") << "a first read waits on no FIFO";
    EXPECT_TRUE(opens("fifo", kCreate));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "fifo"));
#endif
    // A link at an entry's name, to a file outside: not served, not rewritten. A link at a
    // temporary name: removed, and a new file of its own created in its place.
    if (!(links = PlantLink(target, dir / "entry"))) continue;
    for (const Mode m : {kRead, kRewrite, kOpenAlways}) EXPECT_FALSE(opens("entry", m));
#if !defined(_WIN32)
    EXPECT_EQ(Start(dir.path(), "entry", 16), "<refused>");
#endif
    ASSERT_TRUE(PlantLink(target, dir / "link.tmp"));
    EXPECT_TRUE(opens("link.tmp", kCreate, "entry"));
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "link.tmp"));
    EXPECT_EQ(ReadFileBytes(dir / "link.tmp"), "entry");
    EXPECT_EQ(ReadFileBytes(target), "precious");
  }
  // Devices are not files either.
#if defined(_WIN32)
  EXPECT_FALSE(Open(Path(), L"NUL", kRead));
#else
  EXPECT_FALSE(Open("/dev", "zero", kRead));
  // A hard link to a device is what a planted one looks like; reached here through its directory.
  EXPECT_EQ(Start("/dev", "zero", 16), "<refused>");
#endif
  if (!links) GTEST_SKIP() << "links unchecked: " << NoLinkReason();
}

// A directory lists its entries (a link is no regular file, wherever it leads), reads the first
// bytes of its regular files only, leaving nothing open, and removes by name without following
// links.
TEST(SysFileTest, ADirectoryListsReadsStartsAndRemovesByNameWithoutFollowingLinks) {
  tq::test::TempDir dir;
  WriteFileBytes(dir / "file", "0123456789");
  WriteFileBytes(dir / "empty", "");
  std::filesystem::create_directory(dir / "sub");
  const bool links =
      PlantLink(dir / "file", dir / "link") && PlantLink(dir / "missing", dir / "dangling");
  if (!links) std::printf("no links: %s\n", NoLinkReason());
  const TqUSysDirectory directory(dir.path());
  ASSERT_FALSE(directory.Error());
  std::map<std::string, std::pair<bool, std::int64_t>> items, expected;  // regular, size
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    items[Path(Path::string_type(i.name, i.length)).string()] = {i.regular, i.size};
  }));
  expected["file"] = {true, 10};
  expected["empty"] = {true, 0};
  expected["sub"] = {false, -1};
  if (links) expected["link"] = expected["dangling"] = {false, -1};
  EXPECT_EQ(items, expected);
  const std::tuple<const char*, std::size_t, std::string> starts[] = {
      {"file", 4, "0123"},          {"file", 64, "0123456789"}, {"empty", 16, ""},
      {"missing", 16, "<refused>"}, {"sub", 16, "<refused>"}};
  for (const auto& [name, size, bytes] : starts) {
    EXPECT_EQ(Start(dir.path(), name, size), bytes) << name << ", " << size;
  }
  EXPECT_TRUE(Open(dir.path(), "file", kRewrite)) << "nothing of the read stays open";
  EXPECT_EQ(Start(dir / "absent", "file", 4), "<refused>");
  std::error_code ec;
  EXPECT_EQ(directory.FileSize(Path("file").c_str()), 10);
  EXPECT_FALSE(directory.Exists(Path("none").c_str(), ec));
  if (links) {
    EXPECT_EQ(directory.FileSize(Path("link").c_str()), -1);
    EXPECT_TRUE(directory.Exists(Path("dangling").c_str(), ec)) << "there, wherever it leads";
    EXPECT_TRUE(directory.RemoveFile(Path("link").c_str(), ec));
    EXPECT_EQ(ReadFileBytes(dir / "file"), "0123456789") << "what a removed link leads to stays";
  }
  EXPECT_TRUE(directory.RemoveFile(Path("file").c_str(), ec));
  EXPECT_FALSE(directory.RemoveFile(Path("file").c_str(), ec)) << "nothing there any more";
  EXPECT_FALSE(ec);
  // A read-only file blocks no name: removed by name or by path, and replaced by a rename, as a
  // writable directory allows on POSIX.
  for (const char* name : {"ro-by-name", "ro-by-path", "ro-renamed-over"}) {
    WriteFileBytes(dir / name, name);
    std::filesystem::permissions(dir / name, std::filesystem::perms::owner_read);
  }
  WriteFileBytes(dir / "new", "new");
  EXPECT_TRUE(directory.RemoveFile(Path("ro-by-name").c_str(), ec)) << ec.message();
  EXPECT_TRUE(F::RemoveFile(dir / "ro-by-path", ec)) << ec.message();
  EXPECT_TRUE(F::RenameFile(dir / "new", dir / "ro-renamed-over", ec)) << ec.message();
  EXPECT_EQ(ReadFileBytes(dir / "ro-renamed-over"), "new");
  for (const char* name : {"ro-by-name", "ro-by-path", "new"}) {
    EXPECT_FALSE(std::filesystem::exists(dir / name)) << name;
  }
  // A tree goes whole, read-only files too; a link in it goes as itself, never entered.
  WriteFileBytes(dir / "sub" / "kept", "kept");
  std::filesystem::create_directories(dir / "tree" / "inner");
  WriteFileBytes(dir / "tree" / "inner" / "file", "file");
  WriteFileBytes(dir / "tree" / "ro", "ro");
  std::filesystem::permissions(dir / "tree" / "ro", std::filesystem::perms::owner_read);
  const bool tree_link = links && PlantLink(dir / "sub", dir / "tree" / "link");
  WriteFileBytes(dir / "tree" / "a-stuck", "stuck");
  WriteFileBytes(dir / "tree" / "inner" / "a-stuck", "stuck");
  // Regression: a visitor that throws (out of memory in the clean-up's) left the listing open,
  // so no descriptor came back, and Windows removed no directory being listed (below).
  const std::size_t descriptors = OpenDescriptors();
  EXPECT_THROW(TqUSysDirectory(dir / "tree").List([](const TqUSysDirectory::Item&) {
    throw std::bad_alloc();
  }),
               std::bad_alloc);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  // Regression: on POSIX a tree removal gave up at the first file it could not remove, and a
  // cleared cache kept entries that could have gone. The rest goes; the error is kept.
  TqUSysDirectory::SetRemoveFaultForTesting([](const TqUSysDirectory::Char* name) {
    return Path("a-stuck") == name;
  });
  EXPECT_EQ(TqUSysDirectory::RemoveTree(dir / "tree", ec), tree_link ? 3u : 2u);
  TqUSysDirectory::SetRemoveFaultForTesting({});
  EXPECT_EQ(ec, std::errc::permission_denied);
  EXPECT_EQ(ReadFileBytes(dir / "tree" / "inner" / "a-stuck"), "stuck");
  EXPECT_FALSE(std::filesystem::exists(dir / "tree" / "inner" / "file"));
  EXPECT_FALSE(std::filesystem::exists(dir / "tree" / "ro"));
  EXPECT_EQ(TqUSysDirectory::RemoveTree(dir / "tree", ec), 4u);  // two files, two directories
  EXPECT_FALSE(ec) << ec.message();
  EXPECT_FALSE(std::filesystem::exists(dir / "tree"));
  EXPECT_EQ(ReadFileBytes(dir / "sub" / "kept"), "kept");
  EXPECT_EQ(TqUSysDirectory::RemoveTree(dir / "tree", ec), 0u);
  EXPECT_FALSE(ec);
  EXPECT_EQ(TqUSysDirectory(dir / "none").Error(), std::errc::no_such_file_or_directory);
}

#if defined(_WIN32)
// Regression: a name as the listing gives it was joined to the directory as a plain path, which
// the system tidies: "entry." and "entry " named "entry" (a clean-up read and removed it in
// their place) and "nul" the null device, and a cleared tree kept them all.
TEST(SysFileTest, ANameFromTheListingNamesThatFileAlone) {
  tq::test::TempDir dir;
  std::wstring odd;
  ASSERT_TRUE(qv::sys_path::ToSystem(dir / "odd", odd));  // only the long form makes such names
  std::filesystem::create_directory(odd);
  const std::wstring names[] = {L"entry", L"entry.", L"entry ", L"nul", L"aux.txt"};
  for (const std::wstring& name : names) {
    WriteFileBytes(odd + L"\\" + name, "[" + Path(name).string() + "]");
  }
  const TqUSysDirectory directory(dir / "odd");
  std::size_t listed = 0;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) { listed += i.regular; }));
  EXPECT_EQ(listed, 5u);
  for (const std::wstring& name : names) {
    const std::string body = "[" + Path(name).string() + "]";
    EXPECT_EQ(directory.FileSize(name.c_str()), static_cast<std::int64_t>(body.size())) << body;
    EXPECT_EQ(Start(dir / "odd", name, 64), body);
  }
  std::error_code ec;
  EXPECT_TRUE(directory.RemoveFile(L"entry.", ec)) << ec.message();
  EXPECT_EQ(Start(dir / "odd", L"entry", 64), "[entry]");
  EXPECT_EQ(TqUSysDirectory::RemoveTree(dir / "odd", ec), 5u);  // four files and the directory
  EXPECT_FALSE(ec) << ec.message();
}
#endif

// A handle closed (on another thread) while a read through it had begun: the read went on
// with the freed record, whose memory and descriptor number the next open took, and read that
// open's file.
TEST(SysFileTest, AHandleClosedDuringACallOnItStaysOpenUntilTheCallEnds) {
  tq::test::TempDir dir;
  WriteFileBytes(dir / "first", "first");
  WriteFileBytes(dir / "second", "second");
  F::Handle h = F::OpenFile(dir / "first", kRead.access, kRead.share, kRead.creation, 0, 0);
  F::Handle next = F::kInvalid;
  F::SetUseHookForTesting([&] {
    if (next != F::kInvalid) return;
    EXPECT_TRUE(F::CloseFile(h));
    next = F::OpenFile(dir / "second", kRead.access, kRead.share, kRead.creation, 0, 0);
  });
  std::string buffer(16, '\0');
  std::uint64_t got = 0;
  EXPECT_TRUE(F::ReadFile(h, buffer.data(), buffer.size(), &got));
  F::SetUseHookForTesting({});
  EXPECT_EQ(buffer.substr(0, got), "first");
  EXPECT_FALSE(F::ReadFile(h, buffer.data(), buffer.size(), &got)) << "closed once it ended";
  EXPECT_FALSE(F::CloseFile(h));
  EXPECT_TRUE(F::CloseFile(next));
}

// A path as the system's file calls take it: drive and share paths in the long form; paths in
// the system's own form and device names as they are. On Windows a path is made absolute and
// tidied by the system before the prefix turns that tidying off.
TEST(SysFileTest, PathsTakeTheLongFormOnlyOnceTidied) {
  const auto same = [](const wchar_t* path) { return std::pair{path, std::wstring(path)}; };
  const std::pair<const wchar_t*, std::wstring> forms[] = {
      {L"C:\\cache\\v1\\0123456789.tmp", L"\\\\?\\C:\\cache\\v1\\0123456789.tmp"},
      {L"z:\\", L"\\\\?\\z:\\"},
      {L"\\\\server\\share\\v1\\entry", L"\\\\?\\UNC\\server\\share\\v1\\entry"},
      same(L"\\\\?\\C:\\a\\..\\b"),
      same(L"\\\\?\\UNC\\server\\share\\x"),
      same(L"\\??\\C:\\x"),
      same(L"\\\\.\\NUL"),
      same(L"\\\\.\\pipe\\x"),
      same(L"not\\absolute"),
  };
  for (const auto& [path, form] : forms) {
    EXPECT_EQ(qv::sys_path::LongForm(path), form) << qv::WideToUtf8(path);
  }
#if defined(_WIN32)
  const auto system = [](const std::wstring& path) {
    std::wstring out;
    if (qv::sys_path::ToSystem(path, out)) return out;
    return L"<error " + std::to_wstring(::GetLastError()) + L">";
  };
  const std::wstring here = std::filesystem::current_path().wstring();
  const std::pair<std::wstring, std::wstring> made[] = {
      {L"a/../b/./c", qv::sys_path::LongForm(here + L"\\b\\c")},
      {L"C:/x//y/./z/..", L"\\\\?\\C:\\x\\y"},
      {L"//server/share/x/../y", L"\\\\?\\UNC\\server\\share\\y"},
      // Trailing dots and spaces go, as the system drops them; a device stays one.
      {L"C:\\x\\name. ", L"\\\\?\\C:\\x\\name"},
      {L"NUL", L"\\\\.\\NUL"},
      // Taken as it is, as the system takes it (Wine's GetFullPathNameW would tidy it).
      {L"\\\\?\\C:\\a\\..\\b", L"\\\\?\\C:\\a\\..\\b"},
      // A NUL ends the name where the system reads it: another file's name.
      {std::wstring(L"entry\0.tmp", 10), L"<error 123>"},
      {L"", L"<error 123>"},
  };
  for (const auto& [path, form] : made) EXPECT_EQ(system(path), form) << qv::WideToUtf8(path);
#endif
}

#if !defined(_WIN32)  // Windows directories have access lists, not modes
// One who may write the parent swapped a link in for the directory just made: its owner-only
// mode was set by name, on the file the link leads to. One removed as it is made (another
// process clearing the same cache) is made again, owner-only.
TEST(SysFileTest, ADirectorySwappedOrRemovedAsItIsMadeGivesItsModeToNothingElse) {
  tq::test::TempDir dir;
  using std::filesystem::perms;
  const perms kept = perms::owner_read | perms::owner_write | perms::group_read;
  WriteFileBytes(dir / "target", "x");
  std::filesystem::permissions(dir / "target", kept);
  TqUSysDirectory::SetCreateHookForTesting([&] {
    std::filesystem::rename(dir / "made", dir / "moved");
    std::filesystem::create_symlink(dir / "target", dir / "made");
  });
  std::error_code ec;
  EXPECT_FALSE(TqUSysDirectory::Create(dir / "made", ec));
  TqUSysDirectory::SetCreateHookForTesting({});
  EXPECT_TRUE(ec);
  EXPECT_EQ(std::filesystem::status(dir / "target").permissions() & perms::all, kept);

  int removals = 0;
  TqUSysDirectory::SetCreateHookForTesting([&] {
    if (removals++ == 0) std::filesystem::remove(dir / "again");
  });
  EXPECT_TRUE(TqUSysDirectory::Create(dir / "again", ec)) << ec.message();
  TqUSysDirectory::SetCreateHookForTesting({});
  EXPECT_EQ(removals, 2);
  EXPECT_EQ(std::filesystem::status(dir / "again").permissions() & perms::all, perms::owner_all);
}
#endif

// A cache deep in a user's profile, with an entry's temporary file in it, passes the 260
// characters that Windows allows a path without the long form. A store, a read, a listing, a
// clean-up and a clear all work there, and what callers get back (names listed, the path given)
// is as it was.
TEST(SysFileTest, EveryOperationWorksOnPathsPastTheShortLimit) {
  tq::test::TempDir top;
  const std::string segment(60, 'd');
  Path deep = top.path();
  std::uintmax_t made = 0;
  std::error_code ec;
  while (deep.native().size() < 300) {
    deep /= segment;
    ASSERT_TRUE(TqUSysDirectory::Create(deep, ec)) << deep.string() << ": " << ec.message();
    ++made;
  }
  // One already there is taken; one with no parent, or a file there, is not.
  EXPECT_TRUE(TqUSysDirectory::Create(deep, ec));
  EXPECT_FALSE(TqUSysDirectory::Create(deep / "no" / "parent", ec));
  EXPECT_TRUE(ec);
  const std::string name = "0123456789";
  const Path temporary = deep / (name + ".tmp");
  ASSERT_GT(temporary.native().size(), 300u);
  {
    const Open tmp(deep, name + ".tmp", kCreate);
    ASSERT_TRUE(tmp && tmp.Write("body"));
  }
  EXPECT_FALSE(TqUSysDirectory::Create(temporary, ec));
  ASSERT_TRUE(F::RenameFile(temporary, deep / name, ec)) << ec.message();
  EXPECT_EQ(F::KindOfName(deep / name, ec), F::NameKind::kRegular);
  EXPECT_EQ(F::KindOfName(temporary, ec), F::NameKind::kNone);
  EXPECT_FALSE(ec) << ec.message();
  {
    const Open rewrite(deep, name, kRewrite);
    EXPECT_TRUE(rewrite && rewrite.Write("B"));
  }
  const TqUSysDirectory directory(deep);
  ASSERT_FALSE(directory.Error()) << directory.Error().message();
  EXPECT_EQ(directory.Path(), deep);
  std::map<std::string, std::int64_t> listed;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    listed[Path(Path::string_type(i.name, i.length)).string()] = i.size;
  }));
  EXPECT_EQ(listed, (std::map<std::string, std::int64_t>{{name, 4}}));
  EXPECT_EQ(Start(deep, name, 16), "Body");
  EXPECT_EQ(directory.FileSize(Path(name).c_str()), 4);
  EXPECT_TRUE(directory.Exists(Path(name).c_str(), ec));
  auto named = qv::io::FileReadStream::Create(deep / name);  // the caller's open, to the final path
  ASSERT_TRUE(named);
  EXPECT_EQ(ReadAll(*named, 16), "Body");
  named.reset();
  for (const char* other : {"by-path", "by-name"}) {
    const Open created(deep, other, kCreate);
    EXPECT_TRUE(created && created.Write(other));
  }
  EXPECT_TRUE(F::RemoveFile(deep / "by-path", ec)) << ec.message();
  EXPECT_TRUE(directory.RemoveFile(Path("by-name").c_str(), ec)) << ec.message();
  EXPECT_EQ(TqUSysDirectory::RemoveTree(top / segment, ec), made + 1);
  EXPECT_FALSE(ec) << ec.message();
  EXPECT_EQ(F::KindOfName(top / segment, ec), F::NameKind::kNone);
}

// A read at an offset reads there, wherever the file's position stands, and only within the
// file.
TEST(SysFileTest, AReadAtAnOffsetReadsThereOnlyWithinTheFile) {
  tq::test::TempDir dir;
  WriteFileBytes(dir / "file", "0123456789abcdefghij");
  const Open file(dir.path(), "file", kRead);
  char first[4] = {};
  std::uint64_t got = 99;
  ASSERT_TRUE(F::ReadFile(file.h, first, sizeof first, &got));
  ASSERT_EQ(std::string(first, got), "0123");
  const std::tuple<std::uint64_t, std::uint64_t, std::string> cases[] = {
      {0, 5, "01234"}, {10, 4, "abcd"}, {15, 100, "fghij"}, {20, 8, ""}, {1000, 8, ""}, {7, 0, ""}};
  for (const auto& [offset, size, expected] : cases) {
    std::string buffer(size, '\0');
    ASSERT_TRUE(F::ReadFileAt(file.h, buffer.data(), size, offset, &got)) << offset;
    EXPECT_EQ(buffer.substr(0, got), expected) << offset;
  }
#if !defined(_WIN32)  // Windows moves the position
  ASSERT_TRUE(F::ReadFile(file.h, first, sizeof first, &got));
  EXPECT_EQ(std::string(first, got), "4567") << "the sequential reads go on where they stopped";
#endif
  // Far past the end, up to the largest offset, is past the end; beyond it is refused.
  for (const std::uint64_t at : {(std::uint64_t{1} << 63) - 2, (std::uint64_t{1} << 63) - 1}) {
    got = 99;
    EXPECT_TRUE(F::ReadFileAt(file.h, first, sizeof first, at, &got)) << at;
    EXPECT_EQ(got, 0u);
  }
  EXPECT_FALSE(F::ReadFileAt(file.h, first, 1, std::uint64_t{1} << 63, &got));
  EXPECT_EQ(got, 0u);
}

TEST(MemoryStreamTest, StreamsOverOneSinkKeepTheirOwnPositions) {
  auto first = std::make_unique<qv::io::MemoryStream>();
  first->Write("abcdef", 6);
  qv::io::MemoryStream second(first->Sink());
  char buffer[3];
  ASSERT_EQ(second.Read(buffer, 2), 2u);
  EXPECT_EQ(ReadAll(*first, 4), "abcdef");
  first->Write("gh", 2);
  first.reset();  // the sink outlives the writer
  EXPECT_EQ(ReadAll(second, 3), "cdefgh");
  EXPECT_EQ(second.RSeek(-5, StreamPosition::End), 3u);
  EXPECT_EQ(second.RSeek(1, StreamPosition::Current), 4u);
  EXPECT_EQ(ReadAll(second, 1), "efgh");
  EXPECT_THROW(second.RSeek(-1, StreamPosition::Begin), std::runtime_error);
  EXPECT_EQ(second.RTell(), 8u) << "a refused seek leaves the position";
  second.Sink()->bytes.shrink_to_fit();  // the write below moves the bytes it copies
  EXPECT_EQ(second.Write(second.Sink()->bytes.data() + 2, 4), 4u);
  EXPECT_EQ(ReadAll(second, 3), "cdef");
}

// The file URL of an absolute path.
std::wstring FileUrl(const Path& path) {
#if defined(_WIN32)
  return L"file:///" + path.generic_wstring();  // file:///C:/dir/file
#else
  return L"file://" + qv::Utf8ToWide(path.string());
#endif
}

TEST(FileStreamTest, BaseOffsetIsPositionZeroAndFileUrlsOpenTheSameBytes) {
  tq::test::TempDir dir;
  const auto path = dir / "f";
  {
    WriteFileBytes(path, "HDR");
    qv::io::FileWriteStream w(F::OpenFile(path, kRewrite.access, kRewrite.share,
                                          kRewrite.creation, 0, 0));
    w.SetBaseOffset(3);
    EXPECT_EQ(w.Write("abcdef", 6), 6u);
    EXPECT_EQ(w.WSeek(1, StreamPosition::Begin), 1u);
    EXPECT_EQ(w.Write("B", 1), 1u);
    EXPECT_FALSE(qv::io::FileReadStream::Create(path)) << "the stream holds the file";
  }
  EXPECT_FALSE(qv::io::FileReadStream::Create(dir / "missing"));
#if defined(_WIN32)
  {
    // Another program's writer neither keeps a caller's file from opening nor is kept out by it.
    const auto foreign_writer = [&] {
      return ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
    };
    const HANDLE writer = foreign_writer();
    ASSERT_NE(writer, INVALID_HANDLE_VALUE);
    const auto held = qv::io::FileReadStream::Create(path);
    ::CloseHandle(writer);
    ASSERT_TRUE(held);
    const HANDLE saving = foreign_writer();
    EXPECT_NE(saving, INVALID_HANDLE_VALUE);
    if (saving != INVALID_HANDLE_VALUE) ::CloseHandle(saving);
  }
#endif
  using namespace std::chrono;
  constexpr std::int64_t kModified = 1700000000;  // seconds since 1970
  ASSERT_TRUE(tq::test::SetModifiedTime(path, seconds(kModified) + milliseconds(700)));
  // A file the caller names through a link is its target (only the cache's own opens refuse
  // links), both as a path and as a file URL.
  if (PlantLink(path, dir / "link")) {
    auto linked = qv::io::FileReadStream::Create(dir / "link");
    ASSERT_TRUE(linked);
    EXPECT_EQ(ReadAll(*linked, 16), "HDRaBcdef");
    auto linked_url = TqUFileURL::OpenURLReadStream(FileUrl(dir / "link").c_str(), {});
    ASSERT_TRUE(linked_url);
    EXPECT_EQ(ReadAll(*linked_url, 16), "HDRaBcdef");
  }
  // "ln/../f" is the URL "f" (TqUURL normalises it so, and a cache keys it so), but the system
  // climbed out of the link's target and opened another directory's "f".
  std::filesystem::create_directories(dir / "elsewhere" / "inner");
  WriteFileBytes(dir / "elsewhere" / "f", "elsewhere");
  if (PlantLink(dir / "elsewhere" / "inner", dir / "ln")) {
    for (const wchar_t* climb : {L"/ln/../f", L"/ln/%2E%2e/f"}) {
      const std::wstring climbing = FileUrl(dir.path()) + climb;
      auto climbed = TqUFileURL::OpenURLReadStream(climbing.c_str(), {});
      EXPECT_TRUE(climbed && ReadAll(*climbed, 16) == "HDRaBcdef") << qv::WideToUtf8(climbing);
    }
  }
  // An empty segment is one of the URL's: "elsewhere//../f" is "elsewhere/f", the key a cache
  // gives it, but the system's tidying dropped it first and opened the "f" beside "elsewhere".
  const std::wstring empty_segment = FileUrl(dir.path()) + L"/elsewhere//../f";
  EXPECT_STREQ(TqUURL(empty_segment.c_str(), true).GetString(),
               TqUURL(FileUrl(dir / "elsewhere" / "f").c_str(), true).GetString());
  auto kept = TqUFileURL::OpenURLReadStream(empty_segment.c_str(), {});
  EXPECT_TRUE(kept && ReadAll(*kept, 16) == "elsewhere");
  auto s = qv::io::FileReadStream::Create(path);
  ASSERT_TRUE(s);
  s->SetBaseOffset(3);
  EXPECT_EQ(*s->MetaData().size, 6u);
  EXPECT_EQ(ReadAll(*s, 4), "aBcdef");
  EXPECT_EQ(s->RSeek(-2, StreamPosition::End), 4u);
  EXPECT_THROW(s->RSeek(-7, StreamPosition::End), std::runtime_error);

  const std::wstring url = FileUrl(dir.path()) + L"/%66";
  auto u = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(u);
  EXPECT_EQ(ReadAll(*u, 4), "HDRaBcdef");
  // A host name has no case: "LOCALHOST" was refused as another host.
  for (const wchar_t* host : {L"localhost", L"LOCALHOST", L"LocalHost"}) {
    auto local = TqUFileURL::OpenURLReadStream((L"file://" + std::wstring(host) +
                                                FileUrl(path).substr(7)).c_str(), {});
    EXPECT_TRUE(local && ReadAll(*local, 16) == "HDRaBcdef") << qv::WideToUtf8(host);
  }
  const auto meta = u->MetaData();
  ASSERT_TRUE(meta.etag && meta.modified);
  EXPECT_EQ(*meta.modified, kModified) << "whole seconds, rounded down";
  EXPECT_EQ(*meta.etag, "9-" + std::to_string(kModified) + "700000000")
      << "a tag from size and time to the nanosecond";
#if !defined(_WIN32)  // Windows renames no file held open
  // A file of the same size renamed over the name while it is opened lends neither its time nor
  // its tag to the bytes read: a cache would keep the old bytes under the new file's tag.
  WriteFileBytes(dir / "other", "HDRaBcdeX");
  ASSERT_TRUE(tq::test::SetModifiedTime(dir / "other", seconds(kModified + 60)));
  int calls = 0;
  F::SetOpenHookForTesting([&] {
    if (++calls == 1) std::filesystem::rename(dir / "other", path);
  });
  auto raced = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  F::SetOpenHookForTesting({});
  ASSERT_TRUE(raced);
  EXPECT_EQ(ReadAll(*raced, 4), "HDRaBcdef");
  EXPECT_EQ(raced->MetaData().etag.value_or("<none>"), *meta.etag);
  EXPECT_EQ(raced->MetaData().modified.value_or(0), kModified);
#endif
  // Refused: a file of another host; and regressions, each of which opened a file the URL does
  // not name: an empty host with a path that starts with "//" (another host's file, a UNC path
  // on Windows), a NUL decoded into the path (it ended there as the system read it, so "f"
  // opened), an encoded "/" decoded into a separator ("../f" inside "sub" opened "f" beside it).
  std::filesystem::create_directory(dir / "sub");
  for (const std::wstring& refused :
       {std::wstring(L"file://otherhost/etc/hostname"), L"file:///" + FileUrl(path).substr(7),
        FileUrl(path) + L"%00.txt", FileUrl(dir / "sub") + L"/..%2Ff",
        FileUrl(dir / "sub") + L"/..%2ff"}) {
    EXPECT_FALSE(TqUFileURL::OpenURLReadStream(refused.c_str(), {})) << qv::WideToUtf8(refused);
  }
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";
}

TEST(FileProtocolTest, ResolvesAgainstTheBaseAndRegistersSchemesOnceInAnyCase) {
  // A URL or an absolute path is kept; a relative one is resolved against the base or joined to
  // the directory; with neither, or no path, it fails and leaves the result alone.
  const struct {
    const wchar_t *path, *base, *directory;
    const wchar_t* absolute;  // null: false
  } cases[] = {
      {L"..\\up.png", L"http://h/docs/page.html", nullptr, L"http://h/up.png"},
      // A name holds what a URL cannot; the escapes it already has and "?" keep their meaning.
      {L"my file\\100%.txt", L"http://h/docs/", nullptr, L"http://h/docs/my%20file/100%25.txt"},
      {L"a{1}|\"b\"^[2].txt?v=%41", L"http://h/", nullptr,
       L"http://h/a%7B1%7D%7C%22b%22%5E%5B2%5D.txt?v=%41"},
      // A ":" in the first segment is part of the name: such a name was read as a scheme of its
      // own or refused as no reference at all.
      {L"10:30.txt", L"http://h/d/x", nullptr, L"http://h/d/10:30.txt"},
      {L"my take:2.txt", L"http://h/d/x", nullptr, L"http://h/d/my%20take:2.txt"},
      {L"sub/1:2.txt", L"http://h/d/x", nullptr, L"http://h/d/sub/1:2.txt"},
#if !defined(_WIN32)
      {L"a:b.txt", L"http://h/d/x", nullptr, L"http://h/d/a:b.txt"},
#endif
      {L"https://other/x", L"http://h/a/b/c.txt", L"/dir", L"https://other/x"},
      {L"/etc/x", nullptr, L"/dir", L"/etc/x"},
      {L"C:\\x", nullptr, L"/dir", L"C:\\x"},
      {L"b.txt", L"sub/a.txt", L"/dir", L"/dir/sub/b.txt"},
      {L"b.txt", nullptr, L"/dir", L"/dir/b.txt"},
      {L"b.txt", nullptr, nullptr, nullptr},
      {nullptr, L"http://h/", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    TqUWideStringBuffer out(L"untouched");
    EXPECT_EQ(TqUFileProtocol::ResolveAbsoluteFileOrURL(c.path, c.base, c.directory, &out),
              c.absolute != nullptr);
    EXPECT_EQ(out.View(), c.absolute ? c.absolute : L"untouched")
        << qv::WideToUtf8(c.path ? c.path : L"<null>");
  }

  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
  ASSERT_NE(registry, nullptr);
  TqUFileProtocol http, other;
  EXPECT_TRUE(registry->Register(L"HTTP", &http));
  EXPECT_FALSE(registry->Register(L"http", &other)) << "the first registration stays";
  EXPECT_EQ(registry->Lookup(L"Http"), &http);
  EXPECT_EQ(registry->Unregister(L"hTTp"), &http);
  EXPECT_EQ(registry->Lookup(L"http"), nullptr);
  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), registry) << "still counted once";
  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
}

}  // namespace
