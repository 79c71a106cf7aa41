#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/EncryptedVolumes.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kVaultkit = "/usr/sbin/vaultkit";

// Made of what the tool prints for both versions of the header; every byte of a key, a salt or a
// digest is ca fe.
constexpr const char* kSecondVersion = R"(LUKS header information
Version:       	2
UUID:          	b2893799-e1fa-42f5-84c0-d6df786ba904
Keyslots:
  0: luks2
	Cipher:     aes-xts-plain64
	Iterations: 10000000
	Salt:       ca fe ca fe ca fe ca fe ca fe ca fe ca fe ca fe
	            ca fe ca fe ca fe ca fe ca fe ca fe ca fe ca fe
	AF stripes: 4000
	Area offset:32768 [bytes]
	Digest ID:  0
Tokens:
  0: systemd-tpm2
	tpm2-hash-pcrs:   7
	tpm2-pcr-bank:    sha256
	tpm2-blob:  ca fe ca fe ca fe ca fe
	            ca fe ca fe ca fe
	newer-kind: cafecafecafe
	Keyslot:    1
Digests:
  0: pbkdf2
	Hash:       sha256
	Salt:       ca fe ca fe ca fe ca fe
	Digest:     ca fe ca fe ca fe ca fe
)";

constexpr const char* kFirstVersion = R"(LUKS header information for /dev/sdb

Version:       	1
Cipher name:   	aes
MK digest:     	ca fe ca fe ca fe ca fe
MK salt:       	ca fe ca fe ca fe ca fe
               	ca fe ca fe ca fe ca fe
MK iterations: 	1000

Key Slot 0: ENABLED
	Salt:               	ca fe ca fe ca fe
	                      	ca fe ca fe
	Key material offset:	8
Key Slot 1: DISABLED
)";

class EncryptedVolumesTest : public testing::Test {
 protected:
  void haveVolume(const char* dump) {
    machine_.program("blkid", "echo \"$@\" | grep -q crypto_LUKS && echo /dev/sdb");
    machine_.program("cryptsetup", std::string("cat <<'END'\n") + dump + "END");
    machine_.program("systemd-cryptenroll", "echo SLOT TYPE; echo 0 password for \"$1\"");
  }
  RunResult listed() { return machine_.run(kVaultkit, {"--list"}); }

  ScratchMachine machine_;
};

TEST_F(EncryptedVolumesTest, KeepsCiphersAndSlotsOfTheSecondVersion) {
  haveVolume(kSecondVersion);
  const RunResult result = listed();
  EXPECT_EQ(result.exitCode, 0);
  for (const char* kept :
       {"UUID:          \tb2893799", "Cipher:     aes-xts-plain64", "Iterations: 10000000",
        "Area offset:32768", "  0: systemd-tpm2", "tpm2-pcr-bank:    sha256", "Keyslot:    1",
        "Digests:\n  0: pbkdf2", "0 password for /dev/sdb"}) {
    EXPECT_THAT(result.output, HasSubstr(kept));
  }
  EXPECT_THAT(result.output, Not(HasSubstr("ca fe")));
  EXPECT_THAT(result.output, Not(HasSubstr("cafe")));
  EXPECT_THAT(result.output, Not(HasSubstr("Salt")));
}

TEST_F(EncryptedVolumesTest, KeepsCiphersAndSlotsOfTheFirstVersion) {
  haveVolume(kFirstVersion);
  const RunResult result = listed();
  EXPECT_THAT(result.output, HasSubstr("MK iterations: \t1000"));
  EXPECT_THAT(result.output, HasSubstr("Key Slot 0: ENABLED\n\tKey material offset:\t8\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("ca fe")));
}

TEST_F(EncryptedVolumesTest, SaysWhenThereAreNone) {
  machine_.program("blkid", "exit 2");
  const RunResult result = listed();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "no encrypted volumes\n");
}

TEST_F(EncryptedVolumesTest, DoesNotSaySoWithoutHavingLooked) {
  const RunResult result = listed();
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.output, "not installed: blkid\n");
}

TEST_F(EncryptedVolumesTest, NamesTheKernelsKeysWithoutTheirContents) {
  machine_.program("blkid", "exit 2");
  machine_.file(
      "/proc/keys",
      "00a1b2c3 I--Q---     1 perm 3f010000     0     0 user      cryptsetup:x-d0: CANARY\n"
      "0fd1e2a3 I------     2 perm 1f0b0000     0     0 keyring   .ima: empty\n");
  const RunResult result = listed();
  EXPECT_THAT(result.output, HasSubstr("user         cryptsetup:x-d0\n"));
  EXPECT_THAT(result.output, HasSubstr("keyring      .ima\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY")));
}

TEST_F(EncryptedVolumesTest, DoesNotSaySoWhenItMayNotLook) {
  machine_.program("blkid", "exit 2");
  machine_.directory("/sys/class/block/sda");
  machine_.file("/dev/sda", "", 0000);
  machine_.becomeOrdinaryUser();
  const RunResult result = listed();
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.output, "not permitted to this user: reading the block devices\n");
}

TEST(KeyNameTest, IsNoneForOtherLines) {
  EXPECT_EQ(nameOfKey(""), std::nullopt);
  EXPECT_EQ(nameOfKey("a b c d e f g"), std::nullopt);
  EXPECT_EQ(nameOfKey("a b c d e f g user"), std::nullopt);
}

}  // namespace
}  // namespace quillsift::tools
