// CheckStatus: the package's status decided from its files.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

#include "package_test_support.h"
#include "snapshot/snapshot_builder.h"
#include "snapshot/validation.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using testing::RecordServices;
using testing::TempDir;

class CheckStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::WriteFile(dir_ / "pkg" / "a.bin", std::string(10'000, 'a'));
    testing::WriteFile(dir_ / "pkg" / "sub" / "b.txt", "second file");
    record_->SetId(*Guid::Parse(testing::kPackageId));
    record_->SetVersion(1);
    auto lock = record_->Lock();
    Snapshot& snapshot = record_->snapshot();
    SnapshotBuildOptions options;
    options.blockSize = 4096;
    BuildSnapshotFromFolder(dir_ / "pkg", options, snapshot);
    snapshot.path = (dir_ / "pkg").string();
    snapshot.version = 1;
    for (SnapshotEntry& entry : snapshot.entries) entry.state = entrystate::kNotChecked;  // as after a load
    record_->hasSnapshot = true;
  }

  // Changes one byte of a.bin in place and puts its time stamp back, so only
  // hashing can tell.
  void CorruptKeepingSizeAndTime() {
    const auto path = dir_ / "pkg" / "a.bin";
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    std::string data = testing::ReadFile(path);
    data[5000] = 'X';
    testing::WriteFile(path, data);
    timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  int32_t Check(bool full, bool skipHash) { return record_->CheckStatus(full, skipHash, validator_); }

  TempDir dir_;
  RecordServices services_;
  std::unique_ptr<PackageRequest> record_ = services_.NewRecord();
  Validator validator_;
};

TEST_F(CheckStatusTest, IntactFolderIsUpToDateByEveryCheck) {
  for (bool full : {false, true}) {
    for (bool skip : {false, true}) {
      EXPECT_EQ(Check(full, skip), PKGDLV_VALID) << full << skip;
      EXPECT_EQ(record_->statusDescription, "Package is up to date");
    }
  }
}

TEST_F(CheckStatusTest, ChangedBytesAreFoundByHashingOnlyAndMissingFilesByEveryCheck) {
  CorruptKeepingSizeAndTime();
  EXPECT_EQ(Check(/*full=*/false, /*skipHash=*/true), PKGDLV_VALID) << "size and time are trusted";
  EXPECT_EQ(Check(/*full=*/true, /*skipHash=*/false), PKGDLV_INVALID);
  EXPECT_EQ(record_->statusDescription, "Some files need to be updated");
  EXPECT_EQ(Check(/*full=*/false, /*skipHash=*/false), PKGDLV_INVALID);
  // When the server allows it the full check is skipped: the quick check trusts size and time.
  record_->SetOptionalHashCheck(true);
  EXPECT_EQ(Check(/*full=*/true, /*skipHash=*/true), PKGDLV_VALID);

  record_->SetOptionalHashCheck(false);
  std::filesystem::remove(dir_ / "pkg" / "sub" / "b.txt");
  for (bool full : {false, true}) {
    EXPECT_EQ(Check(full, !full), PKGDLV_INVALID) << full;
    EXPECT_EQ(record_->statusDescription, "Some files need to be updated");
  }
}

TEST_F(CheckStatusTest, UntrustedSnapshotAndDisabledDownloads) {
  record_->hasSnapshot = false;  // now the signature decides, and there is none
  record_->SetStatus(PKGDLV_VALID, "", false);
  EXPECT_EQ(Check(true, false), PKGDLV_INVALID);
  EXPECT_EQ(record_->statusDescription, "Snapshot is invalid or out of date");

  record_->clientDownloadsDisabled = true;
  record_->SetStatus(PKGDLV_VALID, "", false);
  EXPECT_EQ(Check(true, false), PKGDLV_INVALID);
  EXPECT_EQ(record_->statusDescription, "Codebases need to be received from the Quillon Server");

  // With downloads disabled a trusted snapshot makes the package valid even
  // when files are missing: nothing could fetch them anyway.
  record_->hasSnapshot = true;
  std::filesystem::remove(dir_ / "pkg" / "a.bin");
  EXPECT_EQ(Check(false, false), PKGDLV_VALID);
  EXPECT_EQ(record_->statusDescription, "Package is up to date");
}

}  // namespace
}  // namespace pkgdlv
