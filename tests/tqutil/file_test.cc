#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"
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

// A child process that holds a file open until destroyed. Pipes, not sleeps, order the two.
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
  pid_t pid = -1;
  int release_fd = -1;
  bool opened = false;
};

std::string ReadAll(qv::io::IDataReadStream& s, std::uint64_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  while (const auto n = s.Read(buffer.data(), chunk)) out.append(buffer.data(), n);
  return out;
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
    EXPECT_EQ(ReadText(path), "winner's body");
  }
  {
    Holder reader(path, F::kAccessRead, F::kShareRead, F::kOpenExisting);
    ASSERT_TRUE(reader.opened);
    EXPECT_TRUE(Reader(path)) << "readers in two processes coexist";
    EXPECT_FALSE(Rewriter(path)) << "a reader in another process excludes writers";
  }
  Open creator = Creator(path);
  ASSERT_TRUE(creator);
  EXPECT_EQ(F::GetFileSize(creator.h), 0) << "create-always empties the file once it holds it";
}

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

// What an open finds at a name in a directory others may write to. Each case runs both through
// a path and through TqUSysDirectory's names.
TEST(SysFileTest, LinksAreNeverFollowedAndOnlyRegularFilesOpenWithoutWaiting) {
  tq::test::TempDir outside;
  const Path target = outside / "target";  // what a planted link points at: never touched
  for (const bool by_name : {false, true}) {
    SCOPED_TRACE(by_name ? "by name" : "by path");
    tq::test::TempDir dir;
    const TqUSysDirectory directory(dir.Path());
    auto open = [&](const char* name, std::uint32_t access, std::uint32_t share,
                    std::uint32_t creation) {
      return by_name ? directory.OpenFile(name, access, share, creation, 0, 0)
                     : F::OpenFile(dir / name, access, share, creation, 0, 0);
    };
    auto opens = [&](const char* name, std::uint32_t access, std::uint32_t share,
                     std::uint32_t creation) {
      F::Handle h = open(name, access, share, creation);
      F::CloseFile(h);
      return h != nullptr;
    };
    WriteText(target, "precious");

    // A link at an entry's name, to a file outside: not served, not rewritten.
    std::filesystem::create_symlink(target, dir / "entry");
    EXPECT_FALSE(opens("entry", F::kAccessRead, F::kShareRead, F::kOpenExisting));
    EXPECT_FALSE(opens("entry", F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite));
    EXPECT_FALSE(opens("entry", F::kAccessWrite, F::kShareNone, F::kOpenAlways));

    // A link at a temporary name: removed, and a new file of its own created in its place.
    std::filesystem::create_symlink(target, dir / "entry.tmp");
    {
      F::Handle h = open("entry.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways);
      ASSERT_NE(h, nullptr);
      std::uint64_t n = 0;
      EXPECT_TRUE(F::WriteFile(h, "entry", 5, &n));
      F::CloseFile(h);
    }
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "entry.tmp"));
    EXPECT_EQ(ReadText(dir / "entry.tmp"), "entry");
    EXPECT_EQ(ReadText(target), "precious");
    // Created for the owner alone, whatever the umask lets through.
    EXPECT_EQ(std::filesystem::status(dir / "entry.tmp").permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    // A stale temporary file (a writer killed half-way) that shares its data with a name
    // outside through a hard link: removed and created anew, never emptied in place.
    std::filesystem::remove(dir / "entry.tmp");
    std::filesystem::create_hard_link(target, dir / "entry.tmp");
    EXPECT_TRUE(opens("entry.tmp", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_EQ(std::filesystem::hard_link_count(target), 1u);
    EXPECT_EQ(std::filesystem::file_size(dir / "entry.tmp"), 0u);
    EXPECT_EQ(ReadText(target), "precious");

    // A FIFO: every kind of open comes back at once, refused; creating one replaces it.
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const auto& [access, share, creation] :
         {std::tuple{F::kAccessRead, F::kShareRead, F::kOpenExisting},
          std::tuple{F::kAccessRead, F::kShareNone, F::kOpenExisting},
          std::tuple{F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite},
          std::tuple{F::kAccessWrite, F::kShareNone, F::kOpenAlways}}) {
      auto attempt = std::async(std::launch::async,
                                [&, a = access, s = share, c = creation] { return opens("fifo", a, s, c); });
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
    EXPECT_TRUE(opens("fifo", F::kAccessWrite, F::kShareNone, F::kCreateAlways));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "fifo"));
  }
  // Devices are not files either.
  if (std::filesystem::exists("/dev/zero")) {
    EXPECT_EQ(F::OpenFile("/dev/zero", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0),
              nullptr);
  }
}

TEST(SysFileTest, DirectoryListsOpensAndRemovesByNameAndBadHandlesAreRefused) {
  tq::test::TempDir dir;
  WriteText(dir / "file", "12345");
  EXPECT_FALSE(Reader(dir.Path())) << "a directory is not a file";
  EXPECT_EQ(F::OpenFile(dir / "file", 0, 1, 3, 1, 0), nullptr) << "reserved value";
  char buffer[4];
  std::uint64_t n = 0;
  EXPECT_FALSE(F::ReadFile(nullptr, buffer, 4, &n));
  EXPECT_FALSE(F::WriteFile(reinterpret_cast<F::Handle>(buffer), buffer, 4, &n)) << "foreign";
  F::Handle h = F::OpenFile(dir / "file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0);
  ASSERT_TRUE(h);
  EXPECT_TRUE(F::CloseFile(h));
  EXPECT_FALSE(F::CloseFile(h));

  std::filesystem::create_symlink(dir / "file", dir / "link");
  std::filesystem::create_symlink(dir / "missing", dir / "dangling");

  const TqUSysDirectory directory(dir.Path());
  ASSERT_FALSE(directory.Error());
  using Item = std::pair<bool, std::int64_t>;  // regular, size
  std::map<std::string, Item> items;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    items[std::string(i.name, i.length)] = {i.regular, i.size};
  }));
  EXPECT_EQ(items, (std::map<std::string, Item>{
                       {"file", {true, 5}}, {"link", {false, -1}},  // a link is not followed
                       {"dangling", {false, -1}}}));
  EXPECT_EQ(directory.FileSize("file"), 5);
  EXPECT_EQ(directory.FileSize("link"), -1);
  std::error_code exists_error;
  EXPECT_TRUE(directory.Exists("dangling", exists_error)) << "a link is there, wherever it leads";
  EXPECT_FALSE(exists_error);
  EXPECT_FALSE(directory.Exists("none", exists_error));
  EXPECT_FALSE(exists_error);
  {
    Open writer = Rewriter(dir / "file");
    ASSERT_TRUE(writer);
    EXPECT_EQ(directory.OpenFile("file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0),
              nullptr)
        << "the sharing rules hold by name too";
  }
  std::error_code ec;
  TqUSysDirectory::SetRemoveFaultForTesting(
      [](const TqUSysDirectory::Char* name) { return std::strcmp(name, "file") == 0; });
  EXPECT_FALSE(directory.RemoveFile("file", ec));
  EXPECT_EQ(ec, std::errc::permission_denied);
  TqUSysDirectory::SetRemoveFaultForTesting({});
  EXPECT_TRUE(directory.RemoveFile("link", ec));  // the link, not what it leads to
  EXPECT_TRUE(std::filesystem::exists(dir / "file"));
  EXPECT_TRUE(directory.RemoveFile("file", ec));

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
  // A file the caller names through a link is its target (only the cache's own opens refuse
  // links), both as a path and as a file URL.
  std::filesystem::create_symlink(path, dir / "link");
  auto linked = FileReadStream::Create(dir / "link");
  ASSERT_TRUE(linked);
  EXPECT_EQ(ReadAll(*linked, 16), "HDRaBcdef");
  const std::wstring link_url = L"file://" + qv::Utf8ToWide((dir / "link").string());
  auto linked_url = TqUFileURL::OpenURLReadStream(link_url.c_str(), {});
  ASSERT_TRUE(linked_url);
  EXPECT_EQ(ReadAll(*linked_url, 16), "HDRaBcdef");
  auto s = FileReadStream::Create(path);
  ASSERT_TRUE(s);
  s->SetBaseOffset(3);
  EXPECT_EQ(*s->MetaData().size, 6u);
  EXPECT_EQ(ReadAll(*s, 4), "aBcdef");
  EXPECT_EQ(s->RSeek(-2, StreamPosition::End), 4u);
  EXPECT_THROW(s->RSeek(-7, StreamPosition::End), std::runtime_error);

  const std::wstring url = L"file://" + qv::Utf8ToWide(dir.Path().string()) + L"/%66";
  auto u = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(u);
  EXPECT_EQ(ReadAll(*u, 4), "HDRaBcdef");
  const auto meta = u->MetaData();
  ASSERT_TRUE(meta.etag && meta.modified);
  EXPECT_EQ(*meta.etag, "9-" + std::to_string(*meta.modified)) << "a tag from size and time";
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";

  // A write the file system refuses (here: past the process's file size limit) throws.
  {
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
