#include <gtest/gtest.h>

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

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

const Guid kFirst = *Guid::Parse("{00000000-0000-0000-0000-000000000001}");
const Guid kSecond = *Guid::Parse("{00000000-0000-0000-0000-000000000002}");

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
  void WritePackage(const fs::path& work, const Guid& id, std::string_view status) {
    WriteFile(work / id.ToString() / "package.xml",
              Format("<Package id=\"%ls\" name=\"p\" size=\"9\" status=\"%ls\"/>", id.ToString(), std::string(status)));
    WriteFile(work / id.ToString() / "data" / "payload.bin", "123456789");
  }

  TempDir dir_;
  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  std::shared_ptr<FakeVolumes> volumes_ = std::make_shared<FakeVolumes>();
  AgentServices services_;
};

TEST_F(WorkFolderTest, LockFileKeepsASecondHolderOutAndGoesWithItsHolder) {
  WorkFolderLock first, second;
  first.Open(dir_.path());
  EXPECT_TRUE(fs::exists(dir_ / kWorkFolderLockFileName));
  try {
    second.Open(dir_.path());
    ADD_FAILURE() << "a second lock was granted";
  } catch (const Error& e) {
    EXPECT_EQ(e.code(), 0x80070020u);
  }
  first.Close();
  EXPECT_FALSE(fs::exists(dir_ / kWorkFolderLockFileName));
  second.Open(dir_.path());
  EXPECT_TRUE(second.IsOpen());

  // An engine that cannot lock its folder says so and works on.
  PackageManager engine(services_, dir_.path(), std::make_shared<testing::ScriptedDownloader>(services_.clock));
  engine.LockWorkFolder(false);
  EXPECT_TRUE(log_->Contains("LockWorkFolder: Cannot lock work folder, error: "));
}

struct Refusal {
  const char* name;
  bool fixedDrive;
  bool sparseFiles;
  const char* target;  // relative to the test folder, or absolute
  uint32_t flags;
  const char* message;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class RelocationRefusalTest : public WorkFolderTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RelocationRefusalTest, IsRefusedBeforeDownloadsAreSuspended) {
  const Refusal& r = GetParam();
  volumes_->details.fixedDrive = r.fixedDrive;
  volumes_->details.sparseFiles = r.sparseFiles;
  const fs::path work = dir_ / "work";
  WritePackage(work, kFirst, "pending");
  PackageManager engine(services_, work, nullptr);
  engine.ResumeDownloads();

  const fs::path target = fs::path(r.target).is_absolute() ? fs::path(r.target) : dir_ / r.target;
  PackageManager::Relocation result = engine.RelocateWorkFolder(target);
  EXPECT_EQ(result.flags, r.flags);
  EXPECT_TRUE(log_->Contains(Format(r.message, target.string())));
  EXPECT_FALSE(engine.relocationRequested().IsSet());
  EXPECT_TRUE(engine.queue().Contains(kFirst));
  EXPECT_TRUE(fs::exists(work / kFirst.ToString() / "package.xml"));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RelocationRefusalTest,
    ::testing::Values(
        Refusal{"NotLocal", false, true, "new", PKGDLV_RELOCATE_ABORTED_NOT_LOCAL,
                "The new work folder will not be applied: not a local hard drive: '%ls'"},
        Refusal{"SystemFolder", true, true, "/usr/share/packages", PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                "The new work folder will not be applied: it is a system folder: '%ls'"},
        Refusal{"NoSparseFiles", true, false, "new", PKGDLV_RELOCATE_ABORTED_NOT_NTFS,
                "The new work folder will not be applied: not NTFS or ReFS drive: '%ls'"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WorkFolderTest, FreeSpaceMustExceedTheNeedAndARefusalKeepsDownloadsSuspended) {
  const fs::path work = dir_ / "work";
  WritePackage(work, kFirst, "pending");
  const StoreSize size = MeasureStore(work);
  EXPECT_EQ(size.packageData, 9u);
  EXPECT_GT(size.documents, 0u);
  volumes_->details.freeBytes = size.documents + size.workingFiles;  // same volume: data is renamed, not copied

  PackageManager engine(services_, work, nullptr);
  engine.ResumeDownloads();
  PackageManager::Relocation result = engine.RelocateWorkFolder(dir_ / "new");
  EXPECT_EQ(result.flags, PKGDLV_RELOCATE_ABORTED_NO_SPACE);
  EXPECT_EQ(result.requiredMiB, 0u);
  EXPECT_TRUE(engine.relocationRequested().IsSet());
  EXPECT_EQ(engine.queue().Size(), 0u);
  EXPECT_TRUE(fs::exists(work / kFirst.ToString() / "package.xml"));

  volumes_->details.freeBytes += 1;
  EXPECT_EQ(engine.RelocateWorkFolder(dir_ / "new").flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(engine.relocationRequested().IsSet());
}

TEST_F(WorkFolderTest, RelocationMovesEveryPackageFollowsHeldRecordsAndResumesFromTheNewFolder) {
  const fs::path work = dir_ / "work";
  const fs::path moved = dir_ / "elsewhere" / "store";
  WritePackage(work, kFirst, "pending");
  WritePackage(work, kSecond, "valid");
  WriteFile(work / kFirst.ToString() / "cache" / "block-tmp", "scratch");

  PackageManager engine(services_, work, nullptr);
  engine.LockWorkFolder(false);
  engine.ResumeDownloads();
  std::shared_ptr<PackageRequest> held = engine.store().Find(kFirst);
  ASSERT_TRUE(held);

  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_FALSE(fs::exists(work));
  for (const Guid& id : {kFirst, kSecond}) EXPECT_EQ(ReadFile(moved / id.ToString() / "data" / "payload.bin"), "123456789");
  EXPECT_TRUE(fs::exists(moved / kWorkFolderLockFileName));
  EXPECT_EQ(held->packageFolder(), (moved / kFirst.ToString()).string());
  EXPECT_TRUE(engine.queue().Contains(kFirst));
  EXPECT_FALSE(engine.queue().Contains(kSecond));
  EXPECT_TRUE(log_->Contains("Package relocation is complete"));

  // The same folder again: only checked, nothing moves.
  EXPECT_EQ(engine.RelocateWorkFolder(moved).flags, PKGDLV_RELOCATE_SUCCESS);
  EXPECT_TRUE(log_->Contains("Validating work folder integrity..."));
}

TEST_F(WorkFolderTest, LinksLeftByAPartialMoveAreFinishedInPlaceAndForeignLinksAbort) {
  const fs::path old = dir_ / "old";
  const fs::path store = dir_ / "store";
  WritePackage(old, kFirst, "pending");
  fs::create_directories(store);
  fs::create_directory_symlink(old / kFirst.ToString(), store / kFirst.ToString());

  StoreMover mover(*log_);
  EXPECT_EQ(mover.Move(store, store), MoveResult::kAllMoved);
  EXPECT_FALSE(fs::is_symlink(store / kFirst.ToString()));
  EXPECT_EQ(ReadFile(store / kFirst.ToString() / "data" / "payload.bin"), "123456789");
  EXPECT_FALSE(fs::exists(old / kFirst.ToString()));

  // A link in the target that leads anywhere but the package being moved.
  const fs::path next = dir_ / "next";
  WritePackage(dir_ / "foreign", kFirst, "pending");
  fs::create_directories(next);
  fs::create_directory_symlink(dir_ / "foreign" / kFirst.ToString(), next / kFirst.ToString());
  EXPECT_EQ(mover.Move(store, next), MoveResult::kFailed);
  EXPECT_TRUE(log_->Contains("contain Directory Junction to foreign location"));
  EXPECT_TRUE(fs::exists(store / kFirst.ToString() / "package.xml"));
}

TEST_F(WorkFolderTest, SetWorkFolderRefusesWhileAnotherFolderHasQueuedPackages) {
  const fs::path work = dir_ / "work";
  WritePackage(work, kFirst, "pending");
  PackageManager engine(services_, work, nullptr);
  engine.ResumeDownloads();
  EXPECT_FALSE(engine.SetWorkFolder(work));
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
