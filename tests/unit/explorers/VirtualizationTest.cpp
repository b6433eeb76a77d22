#include "explorers/Virtualization.h"

#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;

namespace
{

class VirtualizationTest : public testing::Test
{
protected:
  void write(std::string const& path, std::string const& text)
  {
    std::filesystem::create_directories(std::filesystem::path(m_root / path).parent_path());
    writeText(m_root / path, text);
  }

  void nameSpace(std::string const& number)
  {
    std::filesystem::create_directories(m_root / "proc/self/ns");
    std::filesystem::remove(m_root / "proc/self/ns/pid");
    std::filesystem::create_symlink("pid:[" + number + "]", m_root / "proc/self/ns/pid");
  }

  std::string machine() const { return collectVirtualization(m_root.path()).machine; }
  std::string container() const { return collectVirtualization(m_root.path()).container; }

  TempDir m_root;
};

} // namespace

TEST_F(VirtualizationTest, nothingIsSaidOfAMachineOfWhichNothingIsKnown)
{
  EXPECT_EQ("", machine());
  EXPECT_EQ("", container());
}

TEST_F(VirtualizationTest, theFirmwareNamesTheHypervisor)
{
  write("proc/cpuinfo", "flags : fpu hypervisor lm\n");
  EXPECT_EQ("other", machine());
  write("sys/class/dmi/id/sys_vendor", "QEMU\n");
  write("sys/class/dmi/id/product_name", "Standard PC (Q35 + ICH9, 2009)\n");
  EXPECT_EQ("qemu", machine());
  write("sys/class/dmi/id/product_name", "KVM\n");
  EXPECT_EQ("kvm", machine());
  write("sys/class/dmi/id/product_name", "VMware7,1\n");
  EXPECT_EQ("vmware", machine());
}

TEST_F(VirtualizationTest, aProvidersOwnMachineIsNoVirtualOneWhateverItsProductIsCalled)
{
  write("sys/class/dmi/id/sys_vendor", "Amazon EC2\n");
  write("proc/cpuinfo", "flags : fpu lm\n");
  EXPECT_EQ("none", machine());
  write("proc/cpuinfo", "flags : fpu lm hypervisor\n");
  EXPECT_EQ("amazon", machine());
}

TEST_F(VirtualizationTest, theDomainThatControlsTheOthersIsTheMachineItself)
{
  write("proc/cpuinfo", "flags : fpu hypervisor\n");
  write("sys/hypervisor/type", "xen\n");
  EXPECT_EQ("xen", machine());
  write("proc/xen/capabilities", "control_d\n");
  EXPECT_EQ("none", machine());
}

TEST_F(VirtualizationTest, aDeviceTreeNamesTheHypervisorToo)
{
  write("proc/cpuinfo", "Features : fp asimd\n");
  EXPECT_EQ("", machine());
  write("proc/device-tree/hypervisor/compatible", std::string("linux,kvm\0", 10));
  EXPECT_EQ("kvm", machine());
}

TEST_F(VirtualizationTest, aContainerIsNamedByItsManager)
{
  nameSpace("4026532198");
  EXPECT_EQ("other", container());
  write(".dockerenv", "");
  EXPECT_EQ("docker", container());
  write("run/.containerenv", "");
  EXPECT_EQ("podman", container());
  write("run/systemd/container", "systemd-nspawn\n");
  EXPECT_EQ("systemd-nspawn", container());
}

TEST_F(VirtualizationTest, marksOfAContainerInTheImageOfAMachineAreNoContainer)
{
  write(".dockerenv", "");
  nameSpace("4026531836");
  EXPECT_EQ("none", container());
}
