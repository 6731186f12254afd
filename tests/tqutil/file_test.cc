#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#endif

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/read_all.h"
#include "tests/support/servers/temp_dir.h"
#include "tqutil/file_protocol.h"
#include "tqutil/file_streams.h"
#include "tqutil/file_url.h"
#include "tqutil/streams.h"
#include "tqutil/sys_file.h"

namespace {

using qv::io::FileReadStream;
using qv::io::FileWriteStream;
using qv::io::MemoryStream;
using qv::io::StreamPosition;
using F = TqUSysFile;
using Path = std::filesystem::path;
using tq::test::ReadAll;

struct Open {  // closed at the end of the scope
  F::Handle h;
  Open(const Path& p, std::uint32_t access, std::uint32_t share, std::uint32_t creation)
      : h(F::OpenFile(p, access, share, creation, 0, 0)) {}
  ~Open() { F::CloseFile(h); }
  Open(const Open&) = delete;
  explicit operator bool() const { return h != nullptr; }
};
Open Reader(const Path& p) { return {p, F::kAccessRead, F::kShareRead, F::kOpenExisting}; }
Open Creator(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kCreateAlways}; }
Open Rewriter(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite}; }

void WriteText(const Path& p, const std::string& s) { std::ofstream(p, std::ios::binary) << s; }
std::string ReadText(const Path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A child process that holds a file open until released (destroyed) or killed. Pipes, not
// sleeps, order the two.
#if defined(_WIN32)
// The helper program tests/helpers/file_holder.cc, beside this test program.
struct Holder {
  Holder(const Path& path, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
         const std::string& write = "") {
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE child_in = nullptr, child_out = nullptr, answer = nullptr;
    if (!::CreatePipe(&child_in, &release, &inherit, 0)) return;
    if (!::CreatePipe(&answer, &child_out, &inherit, 0)) {
      ::CloseHandle(child_in);
      return;
    }
    ::SetHandleInformation(release, HANDLE_FLAG_INHERIT, 0);
    ::SetHandleInformation(answer, HANDLE_FLAG_INHERIT, 0);
    wchar_t self[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const Path program = Path(std::wstring(self, length)).parent_path() / L"file_holder.exe";
    std::wstring command = L"\"" + program.wstring() + L"\" " + std::to_wstring(access) + L" " +
                           std::to_wstring(share) + L" " + std::to_wstring(creation);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = child_in;
    startup.hStdOutput = child_out;
    startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started = {};
    const bool running = ::CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE,
                                          0, nullptr, nullptr, &startup, &started) != 0;
    ::CloseHandle(child_in);
    ::CloseHandle(child_out);
    if (running) {
      ::CloseHandle(started.hThread);
      process = started.hProcess;
      const std::u8string utf8 = path.u8string();
      const std::string request = std::string(utf8.begin(), utf8.end()) + "\n" + write + "\n";
      DWORD n = 0;
      char ok = 0;
      opened = ::WriteFile(release, request.data(), static_cast<DWORD>(request.size()), &n,
                           nullptr) &&
               ::ReadFile(answer, &ok, 1, &n, nullptr) && n == 1 && ok == '1';
    }
    ::CloseHandle(answer);
  }
  ~Holder() {
    if (release) ::CloseHandle(release);  // the helper closes the file and leaves
    if (process) {
      if (::WaitForSingleObject(process, 10000) != WAIT_OBJECT_0) Kill();
      ::CloseHandle(process);
    }
  }
  // Ends the helper at once, its file still open, like a writer that dies half-way.
  void Kill() {
    if (process && ::TerminateProcess(process, 1)) ::WaitForSingleObject(process, INFINITE);
  }
  HANDLE process = nullptr;
  HANDLE release = nullptr;
  bool opened = false;
};
#else
struct Holder {
  Holder(const Path& path, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
         const std::string& write = "") {
    int ready[2], release[2];
    if (::pipe(ready) != 0 || ::pipe(release) != 0) return;
    if ((pid = ::fork()) == 0) {
      F::Handle h = F::OpenFile(path, access, share, creation, 0, 0);
      std::uint64_t n = 0;
      char ok = h && (write.empty() || F::WriteFile(h, write.data(), write.size(), &n));
      ::close(release[1]);
      if (::write(ready[1], &ok, 1) == 1) (void)::read(release[0], &ok, 1);  // until released
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    release_fd = release[1];
    char ok = 0;
    opened = ::read(ready[0], &ok, 1) == 1 && ok;
    ::close(ready[0]);
  }
  ~Holder() {
    if (pid > 0 && ::close(release_fd) == 0) ::waitpid(pid, nullptr, 0);
  }
  // Ends the child at once, its file still open, like a writer that dies half-way.
  void Kill() {
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    pid = -1;
    ::close(release_fd);
  }
  pid_t pid = -1;
  int release_fd = -1;
  bool opened = false;
};
#endif

// A symbolic link at `link` to `target`; false when the system could not make one. Wine makes
// none (tests/WINDOWS.md): CreateSymbolicLinkW reports success and leaves nothing behind.
bool MakeLink(const Path& target, const Path& link) {
#if defined(_WIN32)
  if (!::CreateSymbolicLinkW(link.c_str(), target.c_str(),
                             SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE)) {
    return false;
  }
  const DWORD attributes = ::GetFileAttributesW(link.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT);
#else
  std::filesystem::create_symlink(target, link);
  return true;
#endif
}

// The file URL of an absolute path.
std::wstring FileUrl(const Path& path) {
#if defined(_WIN32)
  return L"file:///" + path.generic_wstring();  // file:///C:/dir/file
#else
  return L"file://" + qv::Utf8ToWide(path.string());
#endif
}

// How many names a file has (MinGW's std::filesystem always answers 1).
std::uint64_t LinkCount(const Path& path) {
#if defined(_WIN32)
  HANDLE h = ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
  BY_HANDLE_FILE_INFORMATION info = {};
  const bool ok = h != INVALID_HANDLE_VALUE && ::GetFileInformationByHandle(h, &info);
  if (h != INVALID_HANDLE_VALUE) ::CloseHandle(h);
  return ok ? info.nNumberOfLinks : 0;
#else
  return std::filesystem::hard_link_count(path);
#endif
}

TEST(SysFileTest, SharingBetweenProcesses) {
  tq::test::TempDir dir;
  const auto path = dir / "entry.tmp";
  {
    Holder writer(path, F::kAccessWrite, F::kShareNone, F::kCreateAlways, "winner's body");
    ASSERT_TRUE(writer.opened);
    EXPECT_FALSE(Reader(path)) << "the writer in the other process excludes readers";
    // Regression: the loser of a race for the same temporary file must not truncate the
    // winner's half-written body.
    EXPECT_FALSE(Creator(path));
#if !defined(_WIN32)  // Windows lets nobody read a file that its writer holds alone
    EXPECT_EQ(ReadText(path), "winner's body");
#endif
  }
  EXPECT_EQ(ReadText(path), "winner's body");
  {
    Holder reader(path, F::kAccessRead, F::kShareRead, F::kOpenExisting);
    ASSERT_TRUE(reader.opened);
    EXPECT_TRUE(Reader(path)) << "readers in two processes coexist";
    EXPECT_FALSE(Rewriter(path)) << "a reader in another process excludes writers";
  }
  {
    Holder dying(path, F::kAccessWrite, F::kShareNone, F::kCreateAlways, "half a body");
    ASSERT_TRUE(dying.opened);
    dying.Kill();
  }
  EXPECT_EQ(ReadText(path), "half a body") << "a killed writer leaves its file behind";
  Open creator = Creator(path);
  ASSERT_TRUE(creator) << "the file of a killed writer is free";
  EXPECT_EQ(F::GetFileSize(creator.h), 0) << "create-always empties the file once it holds it";
}

#if defined(_WIN32)
// Windows applies the sharing as it opens: from the moment the open has the file, nobody can
// rename another file over its name (there is no window between an open and a lock).
TEST(SysFileTest, NoFileCanBeRenamedOverTheNameOfAnOpenWriter) {
  tq::test::TempDir dir;
  const auto path = dir / "entry";
  WriteText(path, "old");
  WriteText(dir / "new", "new");
  int calls = 0;
  std::error_code rename_error;
  F::SetOpenHookForTesting([&] {
    if (++calls == 1) std::filesystem::rename(dir / "new", path, rename_error);
  });
  const bool opened = bool(Rewriter(path));
  F::SetOpenHookForTesting({});
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(rename_error) << "the open writer holds its name";
  EXPECT_TRUE(opened);
  EXPECT_EQ(ReadText(path), "old");
  EXPECT_EQ(ReadText(dir / "new"), "new");
}
#else
// The window between a writer's open and its lock, entered through the open hook: another
// writer renames a new file over the path there (or not, to show that the rename is what makes
// the open fail).
TEST(SysFileTest, AWriterIsRefusedWhenAFileIsRenamedOverThePathDuringItsOpen) {
  tq::test::TempDir dir;
  const auto path = dir / "entry";
  for (const bool rename : {true, false}) {
    SCOPED_TRACE(rename ? "renamed" : "not renamed");
    WriteText(path, "old");
    WriteText(dir / "new", "new");
    int calls = 0;
    F::SetOpenHookForTesting([&] {
      if (++calls == 1 && rename) std::filesystem::rename(dir / "new", path);
    });
    const bool opened = bool(Rewriter(path));
    F::SetOpenHookForTesting({});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(opened, !rename);
    EXPECT_EQ(ReadText(path), rename ? "new" : "old");
  }
}
#endif

// Whether this process runs under Wine rather than Windows.
bool UnderWine() {
#if defined(_WIN32)
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  return ntdll && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
  return false;
#endif
}

// Why this system made no symbolic link.
const char* NoLinkReason() {
  return UnderWine() ? "Wine makes no symbolic links (tests/WINDOWS.md)"
                     : "this account may not make symbolic links";
}

// An open through a path or through TqUSysDirectory's names, closed again; true when it opened.
struct Opener {
  const tq::test::TempDir& dir;
  const TqUSysDirectory directory;
  bool by_name;
  F::Handle Open(const Path& name, std::uint32_t access, std::uint32_t share,
                 std::uint32_t creation) const {
    return by_name ? directory.OpenFile(name.c_str(), access, share, creation, 0, 0)
                   : F::OpenFile(dir.path() / name, access, share, creation, 0, 0);
  }
  bool Opens(const Path& name, std::uint32_t access, std::uint32_t share,
             std::uint32_t creation) const {
    F::Handle h = Open(name, access, share, creation);
    F::CloseFile(h);
    return h != nullptr;
  }
};

// A link at a name in a directory others may write to (a reparse point on Windows). Each case
// runs both through a path and through TqUSysDirectory's names.
TEST(SysFileTest, LinksAreNeverFollowed) {
  tq::test::TempDir outside;
  const Path target = outside / "target";  // what a planted link points at: never touched
  for (const bool by_name : {false, true}) {
    SCOPED_TRACE(by_name ? "by name" : "by path");
    tq::test::TempDir dir;
    const Opener opener{dir, TqUSysDirectory(dir.path()), by_name};
    WriteText(target, "precious");

    // A link at an entry's name, to a file outside: not served, not rewritten.
    if (!MakeLink(target, dir / "entry")) GTEST_SKIP() << NoLinkReason();
    EXPECT_FALSE(opener.Opens("entry", F::kAccessRead, F::kShareRead, F::kOpenExisting));
    EXPECT_FALSE(opener.Opens("entry", F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite));
    EXPECT_FALSE(opener.Opens("entry", F::kAccessWrite, F::kShareNone, F::kOpenAlways));

    // A link at a temporary name: removed, and a new file of its own created in its place.
    ASSERT_TRUE(MakeLink(target, dir / "entry.tmp"));
    {
      F::Handle h = opener.Open("entry.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways);
      ASSERT_NE(h, nullptr);
      std::uint64_t n = 0;
      EXPECT_TRUE(F::WriteFile(h, "entry", 5, &n));
      F::CloseFile(h);
    }
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "entry.tmp"));
    EXPECT_EQ(ReadText(dir / "entry.tmp"), "entry");
    EXPECT_EQ(ReadText(target), "precious");
  }
}

// What else an open may find at a name in a directory others may write to.
TEST(SysFileTest, OnlyRegularFilesOpenWithoutWaiting) {
  tq::test::TempDir outside;
  const Path target = outside / "target";
  for (const bool by_name : {false, true}) {
    SCOPED_TRACE(by_name ? "by name" : "by path");
    tq::test::TempDir dir;
    const Opener opener{dir, TqUSysDirectory(dir.path()), by_name};
    WriteText(target, "precious");

    // A stale temporary file (a writer killed half-way) that shares its data with a name
    // outside through a hard link: removed and created anew, never emptied in place.
    std::filesystem::create_hard_link(target, dir / "entry.tmp");
    ASSERT_EQ(LinkCount(target), 2u);
    EXPECT_TRUE(opener.Opens("entry.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_EQ(LinkCount(target), 1u);
    EXPECT_EQ(std::filesystem::file_size(dir / "entry.tmp"), 0u);
    EXPECT_EQ(ReadText(target), "precious");
#if !defined(_WIN32)  // Windows files have access lists, not modes
    // Created for the owner alone, whatever the umask lets through.
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(dir / "entry.tmp").permissions() & perms::all,
              perms::owner_read | perms::owner_write);
#endif

    // A read-only stale temporary file does not block its name.
    WriteText(dir / "stale.tmp", "stale");
    std::filesystem::permissions(dir / "stale.tmp", std::filesystem::perms::owner_read);
    EXPECT_TRUE(opener.Opens("stale.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_EQ(std::filesystem::file_size(dir / "stale.tmp"), 0u);
    // Writable again, so that the directory can be removed however the open went.
    std::filesystem::permissions(dir / "stale.tmp", std::filesystem::perms::owner_all);

    // A directory at a temporary name is neither removed nor opened.
    std::filesystem::create_directory(dir / "sub.tmp");
    EXPECT_FALSE(opener.Opens("sub.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_FALSE(opener.Opens("sub.tmp", F::kAccessRead, F::kShareRead, F::kOpenExisting));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "sub.tmp"));

#if !defined(_WIN32)  // a Windows directory holds no FIFO (named pipes live in \\.\pipe\)
    // A FIFO: every kind of open comes back at once, refused; creating one replaces it.
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const auto& [access, share, creation] :
         {std::tuple{F::kAccessRead, F::kShareRead, F::kOpenExisting},
          std::tuple{F::kAccessRead, F::kShareNone, F::kOpenExisting},
          std::tuple{F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite},
          std::tuple{F::kAccessWrite, F::kShareNone, F::kOpenAlways}}) {
      auto attempt = std::async(std::launch::async, [&, a = access, s = share, c = creation] {
        return opener.Opens("fifo", a, s, c);
      });
      const bool returned = attempt.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
      if (!returned) {  // hung in the open: a writer end lets it return, so the test can end
        const int unblock = ::open((dir / "fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        attempt.wait();
        if (unblock >= 0) ::close(unblock);
      }
      EXPECT_TRUE(returned) << "access " << access << ", share " << share << ", creation "
                            << creation;
      EXPECT_FALSE(attempt.get());
    }
    EXPECT_TRUE(opener.Opens("fifo", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "fifo"));
#endif
  }
  // Devices are not files either.
#if defined(_WIN32)
  const Path device = L"NUL";
#else
  const Path device = "/dev/zero";
#endif
  EXPECT_EQ(F::OpenFile(device, F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0), nullptr);
}

TEST(SysFileTest, DirectoryListsOpensAndRemovesByNameAndBadHandlesAreRefused) {
  tq::test::TempDir dir;
  WriteText(dir / "file", "12345");
  EXPECT_FALSE(Reader(dir.path())) << "a directory is not a file";
  EXPECT_EQ(F::OpenFile(dir / "file", 0, 1, 3, 1, 0), nullptr) << "reserved value";
  EXPECT_EQ(TqUSysDirectory(dir.path()).OpenFile(nullptr, 0, 1, 3, 0, 0), nullptr) << "no name";
  char buffer[4];
  std::uint64_t n = 0;
  EXPECT_FALSE(F::ReadFile(nullptr, buffer, 4, &n));
  EXPECT_FALSE(F::WriteFile(reinterpret_cast<F::Handle>(buffer), buffer, 4, &n)) << "foreign";
  F::Handle h = F::OpenFile(dir / "file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0);
  ASSERT_TRUE(h);
  EXPECT_TRUE(F::CloseFile(h));
  EXPECT_FALSE(F::CloseFile(h));

  // Where no symbolic link can be made (Wine), the rest is checked without them.
  const bool links =
      MakeLink(dir / "file", dir / "link") && MakeLink(dir / "missing", dir / "dangling");
  if (!links) std::printf("no links: %s\n", NoLinkReason());
  const auto name = [](const char* text) { return Path(text); };

  const TqUSysDirectory directory(dir.path());
  ASSERT_FALSE(directory.Error());
  using Item = std::pair<bool, std::int64_t>;  // regular, size
  std::map<std::string, Item> items;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    items[Path(Path::string_type(i.name, i.length)).string()] = {i.regular, i.size};
  }));
  std::map<std::string, Item> expected = {{"file", {true, 5}}};
  if (links) {
    expected["link"] = {false, -1};  // a link is not followed
    expected["dangling"] = {false, -1};
  }
  EXPECT_EQ(items, expected);
  EXPECT_EQ(directory.FileSize(name("file").c_str()), 5);
  std::error_code exists_error;
  if (links) {
    EXPECT_EQ(directory.FileSize(name("link").c_str()), -1);
    EXPECT_TRUE(directory.Exists(name("dangling").c_str(), exists_error))
        << "a link is there, wherever it leads";
    EXPECT_FALSE(exists_error);
  }
  EXPECT_TRUE(directory.Exists(name("file").c_str(), exists_error));
  EXPECT_FALSE(exists_error);
  EXPECT_FALSE(directory.Exists(name("none").c_str(), exists_error));
  EXPECT_FALSE(exists_error);
  {
    Open writer = Rewriter(dir / "file");
    ASSERT_TRUE(writer);
    EXPECT_EQ(directory.OpenFile(name("file").c_str(), F::kAccessRead, F::kShareRead,
                                 F::kOpenExisting, 0, 0),
              nullptr)
        << "the sharing rules hold by name too";
  }
  std::error_code ec;
  TqUSysDirectory::SetRemoveFaultForTesting(
      [](const TqUSysDirectory::Char* removed) { return Path(removed) == "file"; });
  EXPECT_FALSE(directory.RemoveFile(name("file").c_str(), ec));
  EXPECT_EQ(ec, std::errc::permission_denied);
  TqUSysDirectory::SetRemoveFaultForTesting({});
  if (links) {
    EXPECT_TRUE(directory.RemoveFile(name("link").c_str(), ec));  // not what it leads to
    EXPECT_TRUE(std::filesystem::exists(dir / "file"));
  }
  EXPECT_TRUE(directory.RemoveFile(name("file").c_str(), ec));
  EXPECT_FALSE(directory.RemoveFile(name("file").c_str(), ec)) << "nothing there any more";
  EXPECT_FALSE(ec);

  EXPECT_EQ(TqUSysDirectory(dir / "none").Error(), std::errc::no_such_file_or_directory);
}

TEST(MemoryStreamTest, StreamsOverOneSinkKeepTheirOwnPositions) {
  auto first = std::make_unique<MemoryStream>();
  first->Write("abcdef", 6);
  MemoryStream second(first->Sink());
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
}

TEST(FileStreamTest, BaseOffsetIsPositionZeroAndFileUrlsOpenTheSameBytes) {
  tq::test::TempDir dir;
  const auto path = dir / "f";
  {
    WriteText(path, "HDR");
    FileWriteStream w(
        F::OpenFile(path, F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite, 0, 0));
    w.SetBaseOffset(3);
    EXPECT_EQ(w.Write("abcdef", 6), 6u);
    EXPECT_EQ(w.WSeek(1, StreamPosition::Begin), 1u);
    EXPECT_EQ(w.Write("B", 1), 1u);
    EXPECT_FALSE(FileReadStream::Create(path)) << "the stream holds the file";
  }
  EXPECT_FALSE(FileReadStream::Create(dir / "missing"));
  // A modification time to read back below, in seconds since 1970.
  using namespace std::chrono;
  constexpr std::int64_t kModified = 1700000000;
  std::filesystem::last_write_time(
      path, file_clock::from_sys(sys_seconds(seconds(kModified)) + milliseconds(700)));
  // A file the caller names through a link is its target (only the cache's own opens refuse
  // links), both as a path and as a file URL.
  if (MakeLink(path, dir / "link")) {
    auto linked = FileReadStream::Create(dir / "link");
    ASSERT_TRUE(linked);
    EXPECT_EQ(ReadAll(*linked, 16), "HDRaBcdef");
    auto linked_url = TqUFileURL::OpenURLReadStream(FileUrl(dir / "link").c_str(), {});
    ASSERT_TRUE(linked_url);
    EXPECT_EQ(ReadAll(*linked_url, 16), "HDRaBcdef");
  } else {
    std::printf("no links: %s\n", NoLinkReason());
  }
  auto s = FileReadStream::Create(path);
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
  const auto meta = u->MetaData();
  ASSERT_TRUE(meta.etag && meta.modified);
  EXPECT_EQ(*meta.modified, kModified) << "whole seconds, rounded down";
  EXPECT_EQ(*meta.etag, "9-" + std::to_string(kModified)) << "a tag from size and time";
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";

  // A write the file system refuses throws.
#if defined(_WIN32)
  {  // Windows has no file size limit per process: a file open for reading refuses writes.
    FileWriteStream read_only(
        F::OpenFile(path, F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0));
    EXPECT_THROW(read_only.Write("xy", 2), std::runtime_error);
  }
#else
  {  // past the process's file size limit
    FileWriteStream limited(
        F::OpenFile(dir / "limited", F::kAccessWrite, F::kShareNone, F::kCreateAlways, 0, 0));
    rlimit previous = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previous), 0);
    const rlimit one_byte = {1, previous.rlim_max};
    const auto previous_handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &one_byte), 0);
    EXPECT_THROW(limited.Write("xy", 2), std::runtime_error);
    ::setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previous_handler);
  }
#endif
}

TEST(FileProtocolTest, ResolveAbsoluteFileOrUrl) {
  const auto Absolute = [](const wchar_t* path, const wchar_t* base, const wchar_t* directory) {
    TqUWideStringBuffer out(L"untouched");
    if (!TqUFileProtocol::ResolveAbsoluteFileOrURL(path, base, directory, &out)) {
      return std::wstring(L"<fail>");
    }
    return std::wstring(out.View());
  };
  EXPECT_EQ(Absolute(L"..\\up.png", L"http://h/docs/page.html", nullptr), L"http://h/up.png");
  EXPECT_EQ(Absolute(L"b.txt", L"sub/a.txt", L"/dir"), L"/dir/sub/b.txt");
  EXPECT_EQ(Absolute(nullptr, L"http://h/", nullptr), L"<fail>");
}

TEST(FileProtocolRegistryTest, CountedLifetimeAndCaseInsensitiveSchemes) {
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
