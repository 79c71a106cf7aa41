#include "tools/PlatformCheck.h"

namespace quillsift::tools {

namespace {

constexpr const char* kPlatterctl = "/usr/sbin/platterctl";
constexpr const char* kBootmark = "/usr/sbin/bootmark";
constexpr const char* kGuardctl = "/usr/bin/guardctl";
constexpr const char* kVaultkit = "/usr/sbin/vaultkit";
constexpr const char* kSealwarden = "/usr/bin/sealwarden";
constexpr const char* kFwlogdump = "/usr/libexec/fwlogdump";
constexpr const char* kPixdiag = "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag";

constexpr HostNeed kNeeds[] = {
    {"/usr/sbin/stallscope", "", "eu-stack", "elfutils"},
    {"/usr/sbin/lsof", "", "lsof", "lsof"},
    {"/bin/ps", "", "ps", "procps"},
    {"/bin/df", "", "df", "coreutils"},
    {kPlatterctl, "list", "lsblk", "util-linux"},
    {kPlatterctl, "list", "blkid", "util-linux"},
    {kPlatterctl, "vellum", "findmnt", "util-linux"},
    {kPlatterctl, "vellum", "btrfs", "btrfs-progs"},
    {kPlatterctl, "vellum", "pvs", "lvm2"},
    {kPlatterctl, "vellum", "vgs", "lvm2"},
    {kPlatterctl, "vellum", "lvs", "lvm2"},
    {kPlatterctl, "vellum", "mdadm", "mdadm"},
    {kPlatterctl, "info", "lsblk", "util-linux"},
    {kPlatterctl, "info", "sfdisk", "fdisk"},
    {kPlatterctl, "info", "smartctl", "smartmontools"},
    {kBootmark, "", "efibootmgr", "efibootmgr"},
    {kBootmark, "", "bootctl", "systemd-boot"},
    {kBootmark, "", "mokutil", "mokutil"},
    {kBootmark, "", "grub-editenv", "grub-common"},
    {kBootmark, "", "findmnt", "util-linux"},
    {"/bin/svcherd", "list", "systemctl", "systemd"},
    {"/bin/svcherd", "dumpstate", "systemd-analyze", "systemd"},
    {"/bin/svcherd", "dumpstate", "ps", "procps"},
    {kGuardctl, "", "aa-status", "apparmor"},
    {kGuardctl, "", "sestatus", "policycoreutils"},
    {kGuardctl, "", "mokutil", "mokutil"},
    {kGuardctl, "", "auditctl", "auditd"},
    {"/usr/sbin/sysctl", "", "sysctl", "procps"},
    {kVaultkit, "", "blkid", "util-linux"},
    {kVaultkit, "", "cryptsetup", "cryptsetup-bin"},
    {kVaultkit, "", "systemd-cryptenroll", "systemd"},
    {"/usr/sbin/nvram", "", "fw_printenv", "libubootenv-tool"},
    {kSealwarden, "", "tpm2_getcap", "tpm2-tools"},
    {kSealwarden, "", "tpm2_pcrread", "tpm2-tools"},
    {"/usr/bin/packrat", "", "tar", "tar"},
    {"/usr/bin/packrat", "", "zstd", "zstd"},
    {kFwlogdump, "", "dmidecode", "dmidecode"},
    {kFwlogdump, "", "tpm2_eventlog", "tpm2-tools"},
    {kFwlogdump, "", "ipmitool", "ipmitool"},
    {kPixdiag, "", "lspci", "pciutils"},
    {kPixdiag, "", "edid-decode", "edid-decode"},
    {kPixdiag, "", "drm_info", "drm-info"},
    {"/usr/bin/tar", "", "tar", "tar"},
    {"/usr/bin/find", "", "find", "findutils"},
    {"/bin/ls", "", "ls", "coreutils"},
    {"/bin/ls", "", "lsattr", "e2fsprogs"},
    {"/bin/ls", "", "getfattr", "attr"},
};

}  // namespace

std::span<const HostNeed> hostNeeds() {
  return kNeeds;
}

}  // namespace quillsift::tools
