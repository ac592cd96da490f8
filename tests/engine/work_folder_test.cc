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
using testing::WriteFile;

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }

class FakeVolumes final : public VolumeInfo {
 public:
  std::optional<VolumeDetails> Query(const fs::path&) override { return details; }
  VolumeDetails details{"ext4", true, true, 1ull << 40, true};
};

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
  // A package of nine bytes in the folder named by the identifier, or by folderName.
  static void WritePackage(const fs::path& work, const Guid& id, std::string_view status, std::string folderName = {}) {
    const fs::path folder = work / (folderName.empty() ? id.ToString() : folderName);
    WriteFile(folder / "package.xml",
              Format("<Package id=\"%ls\" name=\"p\" size=\"9\" status=\"%ls\"/>", id.ToString(), std::string(status)));
    WriteFile(folder / "data" / "payload.bin", "123456789");
  }
  static std::string Payload(const fs::path& work, const Guid& id) {
    return ReadFile(work / id.ToString() / "data" / "payload.bin");
  }
  std::string StatusOnDisk(const Guid& id) {
    const std::string text = ReadFile(work_ / id.ToString() / "package.xml");
    const size_t at = text.find("status=\"") + 8;
    return text.substr(at, text.find('"', at) - at);
  }

  testing::TempDir dir_;
  const fs::path work_ = dir_ / "work";
  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  std::shared_ptr<FakeVolumes> volumes_ = std::make_shared<FakeVolumes>();
  AgentServices services_;
};

struct Refusal {
  const char* name;
  bool fixedDrive, sparseFiles;
  const char* target;  // below the test folder ("proc" is a link to /proc), or absolute
  uint32_t flags;
  const char* reason;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class RelocationRefusalTest : public WorkFolderTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RelocationRefusalTest, IsRefusedBeforeDownloadsAreSuspended) {
  const Refusal& r = GetParam();
  volumes_->details.fixedDrive = r.fixedDrive;
  volumes_->details.sparseFiles = r.sparseFiles;
  WritePackage(work_, IdOf(1), "pending");
  fs::create_directory_symlink("/proc", dir_ / "proc");
  PackageManager engine(services_, work_, nullptr);
  engine.ResumeDownloads();

  const fs::path target = fs::path(r.target).is_absolute() ? fs::path(r.target) : dir_ / r.target;
  PackageManager::Relocation result = engine.RelocateWorkFolder(target);
  const std::string message = std::string("The new work folder will not be applied: ") + r.reason + ": '" +
                              ResolvedFolder(target).string() + "'";
  EXPECT_EQ(std::make_tuple(result.flags, result.message), std::make_tuple(r.flags, message));
  EXPECT_TRUE(log_->Contains(message));
  EXPECT_FALSE(engine.relocationRequested().IsSet());
  EXPECT_TRUE(engine.queue().Contains(IdOf(1)));
  EXPECT_EQ(Payload(work_, IdOf(1)), "123456789");
  EXPECT_FALSE(fs::exists(ResolvedFolder(target) / IdOf(1).ToString()));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RelocationRefusalTest,
    ::testing::Values(
        Refusal{"NotLocal", false, true, "new", PKGDLV_RELOCATE_ABORTED_NOT_LOCAL, "not a local hard drive"},
        Refusal{"SystemFolder", true, true, "/usr/share/packages", PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                "it is a system folder"},
        Refusal{"LinkToASystemFolder", true, true, "proc/pkgdlv-store", PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                "it is a system folder"},
        Refusal{"IntoAPackageFolder", true, true, "work/{00000000-0000-0000-0000-000000000001}/store",
                PKGDLV_RELOCATE_ABORTED, "it is inside the current work folder"},
        Refusal{"NoSparseFiles", true, false, "new", PKGDLV_RELOCATE_ABORTED_NOT_NTFS, "not NTFS or ReFS drive"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WorkFolderTest, NoSpaceRefusalKeepsDownloadsSuspendedAndATakenPackagePending) {
  WritePackage(work_, IdOf(1), "pending");
  const StoreSize size = MeasureStore(work_);
  EXPECT_EQ(size.packageData, 9u);
  volumes_->details.freeBytes = size.documents + size.workingFiles;  // same volume: data is renamed, not copied

  PackageManager engine(services_, work_, nullptr);
  engine.ResumeDownloads();
  std::shared_ptr<PackageRequest> taken = engine.WaitForReadyPackage();  // its attempt not begun
  ASSERT_TRUE(taken);
  ASSERT_EQ(StatusOnDisk(IdOf(1)), "downloading");
  PackageManager::Relocation result = engine.RelocateWorkFolder(dir_ / "new");
  EXPECT_EQ(std::make_tuple(result.flags, result.requiredMiB),
            std::make_tuple(uint32_t{PKGDLV_RELOCATE_ABORTED_NO_SPACE}, 0u));
  EXPECT_TRUE(engine.relocationRequested().IsSet());
  EXPECT_EQ(engine.queue().Size(), 0u);
  EXPECT_EQ(StatusOnDisk(IdOf(1)), "pending");

  volumes_->details.freeBytes = 1ull << 40;
  EXPECT_EQ(engine.RelocateWorkFolder(dir_ / "new").flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(engine.relocationRequested().IsSet());
  EXPECT_TRUE(engine.WaitForReadyPackage());
}

TEST_F(WorkFolderTest, RelocationMovesEveryPackageFollowsHeldRecordsAndResumesFromTheNewFolder) {
  const fs::path moved = dir_ / "elsewhere" / "store";
  std::string lower = IdOf(3).ToString();
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  WritePackage(work_, IdOf(1), "pending");
  WritePackage(work_, IdOf(2), "valid");
  WritePackage(work_, IdOf(3), "pending", lower);
  WriteFile(work_ / IdOf(1).ToString() / "cache" / "block-tmp", "scratch");

  PackageManager engine(services_, work_, nullptr);
  engine.LockWorkFolder(false);
  engine.ResumeDownloads();
  std::shared_ptr<PackageRequest> held = engine.store().Find(IdOf(1));
  ASSERT_TRUE(held);
  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(fs::exists(work_));
  EXPECT_EQ(Payload(moved, IdOf(1)) + Payload(moved, IdOf(2)) + ReadFile(moved / lower / "data" / "payload.bin"),
            "123456789123456789123456789");
  EXPECT_TRUE(fs::exists(moved / kWorkFolderLockFileName));
  EXPECT_EQ(held->packageFolder(), (moved / IdOf(1).ToString()).string());
  EXPECT_EQ(std::make_tuple(engine.queue().Contains(IdOf(1)), engine.queue().Contains(IdOf(2)),
                            engine.queue().Contains(IdOf(3))),
            std::make_tuple(true, false, true));

  // The same folder again is only checked; the same name in other letters
  // is another folder on this file system, and the packages move there.
  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_TRUE(log_->Contains("Validating work folder integrity..."));
  const fs::path otherCase = dir_ / "elsewhere" / "Store";
  EXPECT_EQ(engine.RelocateWorkFolder(otherCase).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_EQ(std::tuple(Payload(otherCase, IdOf(1)), engine.store().workFolder()), std::tuple("123456789", otherCase));
}

// What stands in the way of a move; every case must leave all packages
// where they were, readable, and the old folder locked.
TEST_F(WorkFolderTest, AnObstacleToTheMoveLeavesEveryPackageInPlace) {
  const fs::path target = dir_ / "new";
  const struct {
    const char* name;
    std::function<void()> make;
    const char* logged;
  } cases[] = {
      {"foreign link in the store",
       [&] { fs::create_directory_symlink(dir_ / "foreign", work_ / IdOf(9).ToString()); },
       "contain Directory Junction to foreign location"},
      {"foreign link in the target",
       [&] {
         fs::create_directories(target);
         fs::create_directory_symlink(dir_ / "foreign", target / IdOf(5).ToString());
       },
       "contain Directory Junction to foreign location"},
      {"name taken in the target", [&] { WriteFile(target / IdOf(5).ToString() / "other.txt", "x"); },
       "Failed to move the package"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(work_);
    fs::remove_all(target);
    log_->Clear();
    for (int n = 1; n <= 6; ++n) WritePackage(work_, IdOf(n), "pending");
    WriteFile(dir_ / "foreign" / "keep.txt", "mine");
    c.make();
    PackageManager engine(services_, work_, nullptr);
    engine.LockWorkFolder(false);
    EXPECT_EQ(engine.RelocateWorkFolder(target).flags, PKGDLV_RELOCATE_ABORTED);
    EXPECT_TRUE(log_->Contains(c.logged));
    EXPECT_TRUE(log_->Contains("The new work folder will not be applied: file moving operation failed."));
    for (int n = 1; n <= 6; ++n) {
      EXPECT_EQ(Payload(work_, IdOf(n)), "123456789") << n;
      EXPECT_TRUE(engine.store().Find(IdOf(n))) << n;
    }
    EXPECT_EQ(engine.store().workFolder(), work_);
    WorkFolderLock other;
    EXPECT_THROW(other.Open(work_), Error);
    EXPECT_EQ(ReadFile(dir_ / "foreign" / "keep.txt"), "mine");
  }
}

class StoreMoverTest : public WorkFolderTest {
 protected:
  void SetUp() override {
    for (int n = 1; n <= 6; ++n) WritePackage(from_, IdOf(n), "pending");
  }
  void ExpectAllInPlace() {
    for (int n = 1; n <= 6; ++n) {
      EXPECT_EQ(Payload(from_, IdOf(n)), "123456789") << n;
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
  std::jthread stopper([&] {
    std::this_thread::sleep_for(50ms);
    stop.Set();
  });
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(mover.Move(from_, to_), MoveResult::kFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
  EXPECT_EQ(fs::file_size(big), kBig);
  ExpectAllInPlace();
}

TEST_F(WorkFolderTest, LinksLeftByAPartialMoveAreFinishedInPlaceAndOnlyThose) {
  const fs::path old = dir_ / "old", store = dir_ / "store";
  WritePackage(old, IdOf(1), "pending");
  fs::create_directories(store);
  fs::create_directory_symlink(old / IdOf(1).ToString(), store / IdOf(1).ToString());
  StoreMover mover(*log_);
  EXPECT_EQ(mover.Check(store), MoveResult::kPartlyMoved);
  EXPECT_EQ(mover.Move(store, store), MoveResult::kAllMoved);
  EXPECT_FALSE(fs::is_symlink(store / IdOf(1).ToString()));
  EXPECT_EQ(Payload(store, IdOf(1)), "123456789");
  EXPECT_FALSE(fs::exists(old / IdOf(1).ToString()));

  // A link named by a package that leads to anything but that package's
  // folder is never followed, neither by a check nor by the store.
  WriteFile(dir_ / "foreign" / IdOf(2).ToString() / "keep.txt", "mine");
  fs::create_directory_symlink(dir_ / "foreign" / IdOf(2).ToString(), store / IdOf(2).ToString());
  EXPECT_EQ(mover.Move(store, store), MoveResult::kFailed);
  EXPECT_EQ(ReadFile(dir_ / "foreign" / IdOf(2).ToString() / "keep.txt"), "mine");
  PackageManager engine(services_, store, nullptr);
  EXPECT_EQ(engine.store().ListPackageIds(), std::vector<Guid>{IdOf(1)});
}

TEST_F(WorkFolderTest, ValidatingTheCurrentFolderDoesNotWaitForARunningDownload) {
  WritePackage(work_, IdOf(1), "pending");
  auto downloader = std::make_shared<testing::ScriptedDownloader>(services_.clock);
  testing::ScriptedStep hold;
  hold.holdUntilInterrupted = true;
  downloader->SetDefault(hold);
  PackageManager engine(services_, work_, downloader);
  engine.Start();
  ASSERT_TRUE(downloader->AwaitAttempts(1));
  auto validated = std::async(std::launch::async, [&] { return engine.RelocateWorkFolder(work_); });
  const bool returned = validated.wait_for(5s) == std::future_status::ready;
  engine.Stop();
  ASSERT_TRUE(returned) << "the check waited for the download";
  EXPECT_EQ(validated.get().flags, PKGDLV_RELOCATE_SUCCESS);
}

TEST_F(WorkFolderTest, SetWorkFolderFollowsTheRulesOfAWorkFolder) {
  WriteFile(dir_ / "file", "x");
  const std::pair<std::string, Result> refused[] = {
      {"/proc", result::kAccessDenied}, {(dir_ / "file").string(), FromWin32(win32::kPathNotFound)},
      {"relative/store", result::kInvalidArg}, {"", result::kInvalidArg}};
  WritePackage(work_, IdOf(1), "pending");
  PackageManager engine(services_, work_, nullptr);
  for (const auto& [folder, code] : refused) {
    try {
      engine.SetWorkFolder(folder);
      ADD_FAILURE() << "accepted " << folder;
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), code) << folder << ": " << e.description();
    }
  }
  EXPECT_EQ(engine.store().workFolder(), work_);

  // Not while another folder has queued packages; a missing folder is made.
  engine.ResumeDownloads();
  EXPECT_FALSE(engine.SetWorkFolder(work_));
  EXPECT_THROW(engine.SetWorkFolder(dir_ / "a" / "b"), Error) << "the folder changed under queued packages";
  engine.queue().Clear();
  EXPECT_TRUE(engine.SetWorkFolder(dir_ / "a" / "b"));
  EXPECT_TRUE(fs::is_directory(dir_ / "a" / "b"));
  EXPECT_EQ(engine.store().workFolder(), dir_ / "a" / "b");
}

}  // namespace
}  // namespace pkgdlv
