#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "agent/crypto.h"
#include "agent/volume_info.h"
#include "engine/package_manager.h"
#include "engine/store_mover.h"
#include "records/package_request.h"
#include "support/fake_clock.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"
#include "support/temp_dir.h"
#include "util/error.h"
#include "util/same_folder.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }
const Guid kFirst = IdOf(1);
const Guid kSecond = IdOf(2);

class FakeVolumes final : public VolumeInfo {
 public:
  std::optional<VolumeDetails> Query(const fs::path&) override { return details; }
  VolumeDetails details{"ext4", true, true, 1ull << 40, true};
};

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

class WorkFolderTest : public ::testing::Test {
 protected:
  WorkFolderTest() {
    services_.data_folder = dir_.path();
    services_.clock = std::make_shared<testing::FakeClock>();
    services_.settings = std::make_shared<testing::MemorySettingsStore>();
    services_.log = log_;
    services_.crypto = NewOpenSslCrypto();
    services_.client = std::make_shared<testing::FakeClientAgent>();
    services_.volumes = volumes_;
  }
  void WritePackage(const fs::path& work, const Guid& id, std::string_view status, std::string folderName = {}) {
    const fs::path folder = work / (folderName.empty() ? id.ToString() : folderName);
    WriteFile(folder / "package.xml",
              Format("<Package id=\"%ls\" name=\"p\" size=\"9\" status=\"%ls\"/>", id.ToString(), std::string(status)));
    WriteFile(folder / "data" / "payload.bin", "123456789");
  }
  std::string StatusOnDisk(const fs::path& work, const Guid& id) {
    const std::string text = ReadFile(work / id.ToString() / "package.xml");
    const size_t at = text.find("status=\"");
    return at == std::string::npos ? "" : text.substr(at + 8, text.find('"', at + 8) - at - 8);
  }

  TempDir dir_;
  const fs::path work_ = dir_ / "work";
  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  std::shared_ptr<FakeVolumes> volumes_ = std::make_shared<FakeVolumes>();
  AgentServices services_;
};

struct Refusal {
  const char* name;
  bool fixedDrive;
  bool sparseFiles;
  const char* target;  // below the test folder ("proc" is a link to /proc), or absolute
  uint32_t flags;
  const char* message;  // with the resolved target
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class RelocationRefusalTest : public WorkFolderTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RelocationRefusalTest, IsRefusedBeforeDownloadsAreSuspended) {
  const Refusal& r = GetParam();
  volumes_->details.fixedDrive = r.fixedDrive;
  volumes_->details.sparseFiles = r.sparseFiles;
  WritePackage(work_, kFirst, "pending");
  fs::create_directory_symlink("/proc", dir_ / "proc");
  PackageManager engine(services_, work_, nullptr);
  engine.ResumeDownloads();

  const fs::path target = fs::path(r.target).is_absolute() ? fs::path(r.target) : dir_ / r.target;
  PackageManager::Relocation result = engine.RelocateWorkFolder(target);
  EXPECT_EQ(result.flags, r.flags);
  const std::string message = Format(r.message, ResolvedFolder(target).string());
  EXPECT_EQ(result.message, message);
  EXPECT_TRUE(log_->Contains(message));
  EXPECT_FALSE(engine.relocationRequested().IsSet());
  EXPECT_TRUE(engine.queue().Contains(kFirst));
  EXPECT_TRUE(fs::exists(work_ / kFirst.ToString() / "package.xml"));
  EXPECT_FALSE(fs::exists(ResolvedFolder(target) / kFirst.ToString()));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RelocationRefusalTest,
    ::testing::Values(
        Refusal{"NotLocal", false, true, "new", PKGDLV_RELOCATE_ABORTED_NOT_LOCAL,
                "The new work folder will not be applied: not a local hard drive: '%ls'"},
        Refusal{"SystemFolder", true, true, "/usr/share/packages", PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                "The new work folder will not be applied: it is a system folder: '%ls'"},
        Refusal{"LinkToASystemFolder", true, true, "proc/pkgdlv-store", PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                "The new work folder will not be applied: it is a system folder: '%ls'"},
        Refusal{"IntoAPackageFolder", true, true, "work/{00000000-0000-0000-0000-000000000001}/store",
                PKGDLV_RELOCATE_ABORTED,
                "The new work folder will not be applied: it is inside the current work folder: '%ls'"},
        Refusal{"IntoASubfolder", true, true, "work/sub", PKGDLV_RELOCATE_ABORTED,
                "The new work folder will not be applied: it is inside the current work folder: '%ls'"},
        Refusal{"NoSparseFiles", true, false, "new", PKGDLV_RELOCATE_ABORTED_NOT_NTFS,
                "The new work folder will not be applied: not NTFS or ReFS drive: '%ls'"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WorkFolderTest, NoSpaceRefusalKeepsDownloadsSuspendedAndATakenPackagePending) {
  WritePackage(work_, kFirst, "pending");
  const StoreSize size = MeasureStore(work_);
  EXPECT_EQ(size.packageData, 9u);
  EXPECT_GT(size.documents, 0u);
  volumes_->details.freeBytes = size.documents + size.workingFiles;  // same volume: data is renamed, not copied

  PackageManager engine(services_, work_, nullptr);
  engine.ResumeDownloads();
  std::shared_ptr<PackageRequest> taken = engine.WaitForReadyPackage();  // its attempt not begun
  ASSERT_TRUE(taken);
  ASSERT_EQ(StatusOnDisk(work_, kFirst), "downloading");
  PackageManager::Relocation result = engine.RelocateWorkFolder(dir_ / "new");
  EXPECT_EQ(result.flags, PKGDLV_RELOCATE_ABORTED_NO_SPACE);
  EXPECT_EQ(result.requiredMiB, 0u);
  EXPECT_TRUE(engine.relocationRequested().IsSet());
  EXPECT_EQ(engine.queue().Size(), 0u);
  EXPECT_EQ(StatusOnDisk(work_, kFirst), "pending");

  // Queued again while the request stands, it is not taken.
  engine.ResumeDownloads();
  EXPECT_TRUE(engine.queue().Contains(kFirst));
  EXPECT_FALSE(engine.WaitForReadyPackage());
  EXPECT_EQ(StatusOnDisk(work_, kFirst), "pending");

  volumes_->details.freeBytes = 1ull << 40;
  EXPECT_EQ(engine.RelocateWorkFolder(dir_ / "new").flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(engine.relocationRequested().IsSet());
  EXPECT_TRUE(engine.WaitForReadyPackage());
}

TEST_F(WorkFolderTest, RelocationMovesEveryPackageFollowsHeldRecordsAndResumesFromTheNewFolder) {
  const fs::path moved = dir_ / "elsewhere" / "store";
  const Guid lower = IdOf(3);
  WritePackage(work_, kFirst, "pending");
  WritePackage(work_, kSecond, "valid");
  WritePackage(work_, lower, "pending", Lower(lower.ToString()));
  WriteFile(work_ / kFirst.ToString() / "cache" / "block-tmp", "scratch");

  PackageManager engine(services_, work_, nullptr);
  engine.LockWorkFolder(false);
  engine.ResumeDownloads();
  EXPECT_TRUE(engine.queue().Contains(lower));
  std::shared_ptr<PackageRequest> held = engine.store().Find(kFirst);
  ASSERT_TRUE(held);

  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(fs::exists(work_));
  for (const Guid& id : {kFirst, kSecond}) {
    EXPECT_EQ(ReadFile(moved / id.ToString() / "data" / "payload.bin"), "123456789");
  }
  EXPECT_EQ(ReadFile(moved / Lower(lower.ToString()) / "data" / "payload.bin"), "123456789");
  EXPECT_TRUE(fs::exists(moved / kWorkFolderLockFileName));
  EXPECT_EQ(held->packageFolder(), (moved / kFirst.ToString()).string());
  EXPECT_TRUE(engine.queue().Contains(kFirst));
  EXPECT_TRUE(engine.queue().Contains(lower));
  EXPECT_FALSE(engine.queue().Contains(kSecond));
  EXPECT_TRUE(log_->Contains("Package relocation is complete"));

  // The same folder again: only checked, nothing moves.
  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_TRUE(log_->Contains("Validating work folder integrity..."));

  // The same name in other letters is another folder on this file system.
  const fs::path otherCase = dir_ / "elsewhere" / "Store";
  EXPECT_EQ(engine.RelocateWorkFolder(otherCase).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_EQ(ReadFile(otherCase / kFirst.ToString() / "data" / "payload.bin"), "123456789");
  EXPECT_EQ(engine.store().workFolder(), otherCase);
}

// What stands in the way of a move; every case must leave all packages
// where they were, readable, and the old folder locked.
struct Obstacle {
  const char* name;
  std::function<void(const fs::path& dir, const fs::path& work, const fs::path& target)> make;
  const char* logged;
};

void PrintTo(const Obstacle& o, std::ostream* os) { *os << o.name; }

class RelocationObstacleTest : public WorkFolderTest, public ::testing::WithParamInterface<Obstacle> {};

TEST_P(RelocationObstacleTest, LeavesEveryPackageInPlace) {
  const fs::path target = dir_ / "new";
  for (int n = 1; n <= 6; ++n) WritePackage(work_, IdOf(n), "pending");
  WriteFile(dir_ / "foreign" / "keep.txt", "mine");
  GetParam().make(dir_.path(), work_, target);

  PackageManager engine(services_, work_, nullptr);
  engine.LockWorkFolder(false);
  EXPECT_EQ(engine.RelocateWorkFolder(target).flags, PKGDLV_RELOCATE_ABORTED);
  EXPECT_TRUE(log_->Contains(GetParam().logged));
  EXPECT_TRUE(log_->Contains("The new work folder will not be applied: file moving operation failed."));
  for (int n = 1; n <= 6; ++n) {
    EXPECT_EQ(ReadFile(work_ / IdOf(n).ToString() / "data" / "payload.bin"), "123456789") << n;
    EXPECT_TRUE(engine.store().Find(IdOf(n))) << n;
  }
  EXPECT_EQ(engine.store().workFolder(), work_);
  EXPECT_TRUE(fs::exists(work_ / kWorkFolderLockFileName));
  WorkFolderLock other;
  EXPECT_THROW(other.Open(work_), Error);
  EXPECT_EQ(ReadFile(dir_ / "foreign" / "keep.txt"), "mine");
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RelocationObstacleTest,
    ::testing::Values(
        Obstacle{"ForeignLinkInTheStore",
                 [](const fs::path&, const fs::path& work, const fs::path&) {
                   fs::create_directory_symlink(fs::path(work).parent_path() / "foreign", work / IdOf(9).ToString());
                 },
                 "contain Directory Junction to foreign location"},
        Obstacle{"ForeignLinkInTheTarget",
                 [](const fs::path& dir, const fs::path&, const fs::path& target) {
                   fs::create_directories(target);
                   fs::create_directory_symlink(dir / "foreign", target / IdOf(5).ToString());
                 },
                 "contain Directory Junction to foreign location"},
        Obstacle{"NameTakenInTheTarget",
                 [](const fs::path&, const fs::path&, const fs::path& target) {
                   WriteFile(target / IdOf(5).ToString() / "other.txt", "x");
                 },
                 "Failed to move the package"}),
    [](const auto& info) { return std::string(info.param.name); });

class StoreMoverTest : public WorkFolderTest {
 protected:
  void SetUp() override {
    for (int n = 1; n <= 6; ++n) WritePackage(from_, IdOf(n), "pending");
  }
  void ExpectAllInPlace() {
    for (int n = 1; n <= 6; ++n) {
      EXPECT_EQ(ReadFile(from_ / IdOf(n).ToString() / "data" / "payload.bin"), "123456789") << n;
      EXPECT_FALSE(fs::exists(to_ / IdOf(n).ToString())) << n;
    }
  }
  fs::path from_ = dir_ / "from";
  fs::path to_ = dir_ / "to";
};

TEST_F(StoreMoverTest, AFailureAfterSomePackagesMovedBringsThemBack) {
  for (int acrossVolumes : {0, 1}) {
    SCOPED_TRACE(acrossVolumes ? "copied" : "renamed");
    StoreMover mover(*log_);
    int calls = 0;
    mover.SetRename([&](const fs::path& a, const fs::path& b) {
      if (++calls == 4) return EIO;
      if (acrossVolumes && calls < 4) return EXDEV;
      return std::rename(a.c_str(), b.c_str()) == 0 ? 0 : errno;
    });
    EXPECT_EQ(mover.Move(from_, to_), MoveResult::kFailed);
    EXPECT_TRUE(log_->Contains("Error moving package: "));
    ExpectAllInPlace();
  }
}

TEST_F(StoreMoverTest, AStopDuringALargeCopyEndsPromptlyAndKeepsTheSource) {
  const fs::path big = from_ / IdOf(1).ToString() / "data" / "big.bin";
  constexpr uintmax_t kBig = 512ull << 20;
  { std::ofstream(big).flush(); }
  fs::resize_file(big, kBig);
  Event stop(Event::Reset::kManual);
  StoreMover mover(*log_, &stop);
  mover.SetRename([](const fs::path&, const fs::path&) { return EXDEV; });

  std::thread stopper([&] {
    std::this_thread::sleep_for(50ms);
    stop.Set();
  });
  const auto started = std::chrono::steady_clock::now();
  const MoveResult result = mover.Move(from_, to_);
  const auto stopped = std::chrono::steady_clock::now() - started;
  stopper.join();
  EXPECT_EQ(result, MoveResult::kFailed);
  EXPECT_LT(stopped, 1s);
  EXPECT_EQ(fs::file_size(big), kBig);
  ExpectAllInPlace();
}

TEST_F(WorkFolderTest, LinksLeftByAPartialMoveAreFinishedInPlaceAndOnlyThose) {
  const fs::path old = dir_ / "old";
  const fs::path store = dir_ / "store";
  WritePackage(old, kFirst, "pending");
  fs::create_directories(store);
  fs::create_directory_symlink(old / kFirst.ToString(), store / kFirst.ToString());

  StoreMover mover(*log_);
  EXPECT_EQ(mover.Check(store), MoveResult::kPartlyMoved);
  EXPECT_EQ(mover.Move(store, store), MoveResult::kAllMoved);
  EXPECT_FALSE(fs::is_symlink(store / kFirst.ToString()));
  EXPECT_EQ(ReadFile(store / kFirst.ToString() / "data" / "payload.bin"), "123456789");
  EXPECT_FALSE(fs::exists(old / kFirst.ToString()));

  // A link named by a package that leads to anything but that package's
  // folder is never followed, neither by a check nor by the store.
  WriteFile(dir_ / "foreign" / kSecond.ToString() / "keep.txt", "mine");
  fs::create_directory_symlink(dir_ / "foreign" / kSecond.ToString(), store / kSecond.ToString());
  EXPECT_EQ(mover.Move(store, store), MoveResult::kFailed);
  EXPECT_EQ(ReadFile(dir_ / "foreign" / kSecond.ToString() / "keep.txt"), "mine");
  PackageManager engine(services_, store, nullptr);
  EXPECT_EQ(engine.store().ListPackageIds(), std::vector<Guid>{kFirst});
  EXPECT_FALSE(engine.store().Find(kSecond));
}

TEST_F(WorkFolderTest, ValidatingTheCurrentFolderDoesNotWaitForARunningDownload) {
  WritePackage(work_, kFirst, "pending");
  auto downloader = std::make_shared<testing::ScriptedDownloader>(services_.clock);
  downloader->SetDefault({{}, true});  // holds until interrupted
  PackageManager engine(services_, work_, downloader);
  engine.Start();
  ASSERT_TRUE(downloader->AwaitAttempts(1));

  auto validated = std::async(std::launch::async, [&] { return engine.RelocateWorkFolder(work_); });
  const bool returned = validated.wait_for(5s) == std::future_status::ready;
  engine.Stop();
  ASSERT_TRUE(returned) << "the check waited for the download";
  EXPECT_EQ(validated.get().flags, PKGDLV_RELOCATE_SUCCESS);
}

struct FolderChange {
  const char* name;
  const char* folder;  // "~" stands for the test folder
  Result code;         // 0: accepted
};

void PrintTo(const FolderChange& c, std::ostream* os) { *os << c.name; }

class SetWorkFolderTest : public WorkFolderTest, public ::testing::WithParamInterface<FolderChange> {};

TEST_P(SetWorkFolderTest, FollowsTheRulesOfAWorkFolder) {
  WriteFile(dir_ / "file", "x");
  PackageManager engine(services_, work_, nullptr);
  std::string folder = GetParam().folder;
  if (folder.starts_with("~")) folder = dir_.path().string() + folder.substr(1);
  if (GetParam().code == 0) {
    EXPECT_TRUE(engine.SetWorkFolder(folder));
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(engine.store().workFolder(), ResolvedFolder(folder));
    return;
  }
  try {
    engine.SetWorkFolder(folder);
    ADD_FAILURE() << "accepted " << folder;
  } catch (const Error& e) {
    EXPECT_EQ(e.code(), GetParam().code) << e.description();
  }
  EXPECT_EQ(engine.store().workFolder(), work_);
}

INSTANTIATE_TEST_SUITE_P(Kinds, SetWorkFolderTest,
                         ::testing::Values(FolderChange{"Missing", "~/a/b", 0},
                                           FolderChange{"Root", "/", result::kAccessDenied},
                                           FolderChange{"Proc", "/proc", result::kAccessDenied},
                                           FolderChange{"AFile", "/etc/passwd", result::kAccessDenied},
                                           FolderChange{"AFileElsewhere", "~/file", FromWin32(win32::kPathNotFound)},
                                           FolderChange{"Relative", "relative/store", result::kInvalidArg}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(WorkFolderTest, SetWorkFolderRefusesWhileAnotherFolderHasQueuedPackages) {
  WritePackage(work_, kFirst, "pending");
  PackageManager engine(services_, work_, nullptr);
  engine.ResumeDownloads();
  EXPECT_FALSE(engine.SetWorkFolder(work_));
  EXPECT_THROW(engine.SetWorkFolder(""), Error);
  try {
    engine.SetWorkFolder(dir_ / "other");
    ADD_FAILURE() << "the folder changed under queued packages";
  } catch (const Error& e) {
    EXPECT_EQ(e.description(), "Attribute workFolder has already been set and there are active downloads in the queue");
  }
  engine.queue().Clear();
  EXPECT_TRUE(engine.SetWorkFolder(dir_ / "other"));
  EXPECT_EQ(engine.store().workFolder(), dir_ / "other");
}

}  // namespace
}  // namespace pkgdlv
