#include "agent/volume_info.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

TEST(VolumeInfoTest, TheLinuxQueryNamesTheMountOfAFolder) {
  testing::TempDir dir;
  auto volumes = NewLinuxVolumeInfo();
  std::optional<VolumeDetails> details = volumes->Query(dir.path());
  ASSERT_TRUE(details.has_value());
  EXPECT_FALSE(details->fileSystem.empty());
  EXPECT_EQ(details->exactTimes, !IsFatFamily(details->fileSystem));
  EXPECT_GT(details->freeBytes, 0u);
  EXPECT_EQ(volumes->Query(dir / "absent"), std::nullopt);
}

TEST(VolumeInfoTest, FatKeepsInexactTimesAndMemoryAndNetworkFileSystemsAreNotFixedDrives) {
  for (const char* fat : {"vfat", "msdos", "exfat", "VFAT"}) EXPECT_TRUE(IsFatFamily(fat)) << fat;
  for (const char* exact : {"ext4", "xfs", "btrfs", "tmpfs", "", "fuseblk"}) EXPECT_FALSE(IsFatFamily(exact)) << exact;
  for (const char* network : {"nfs4", "cifs", "fuse.sshfs"}) EXPECT_TRUE(IsNetworkFileSystem(network)) << network;
  for (const char* local : {"ext4", "overlay", "tmpfs", "fuseblk"}) EXPECT_FALSE(IsNetworkFileSystem(local)) << local;

  std::optional<VolumeDetails> shm = NewLinuxVolumeInfo()->Query("/dev/shm");
  if (!shm || shm->fileSystem != "tmpfs") GTEST_SKIP() << "no tmpfs at /dev/shm";
  EXPECT_FALSE(shm->fixedDrive);
  EXPECT_TRUE(NewLinuxVolumeInfo(true)->Query("/dev/shm")->fixedDrive);
}

}  // namespace
}  // namespace pkgdlv
