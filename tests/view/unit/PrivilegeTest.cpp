#include "child/Privilege.hpp"

#include <gtest/gtest.h>

using namespace view;
using Words = std::vector<std::string>;

namespace {

const Words kWords = {"/usr/sbin/xrdefrag", "/dev/sdb"};

Launch planned(const PrivilegeGround& ground, Privilege wanted = Privilege::Automatic) {
  const auto launch = planLaunch(wanted, ground, kWords);
  EXPECT_TRUE(launch);
  return launch ? *launch : Launch{};
}

PrivilegeGround deviceOfOthers() {
  return {.isBlockDevice = true,
          .hasTerminal = true,
          .hasDesktop = true,
          .sudo = "/usr/bin/sudo",
          .pkexec = "/usr/bin/pkexec"};
}

}  // namespace

TEST(ViewPrivilegeTest, RootNeedsNone) {
  const Launch launch = planned({.isRoot = true, .isBlockDevice = true, .sudo = "/usr/bin/sudo"});
  EXPECT_EQ(launch.words, kWords);
  EXPECT_FALSE(launch.inNamespace);
}

TEST(ViewPrivilegeTest, ANamespaceDoesForWhatTheUserMayUse) {
  EXPECT_TRUE(planned({.mayRead = true}).inNamespace);
  EXPECT_TRUE(planned({.mayRead = true, .mayWrite = true, .isBlockDevice = true}).inNamespace);
  EXPECT_EQ(planned({.mayRead = true, .sudo = "/usr/bin/sudo"}).words, kWords);
}

TEST(ViewPrivilegeTest, ADeviceThatMayOnlyBeReadTakesMore) {
  PrivilegeGround ground = deviceOfOthers();
  ground.mayRead = true;
  EXPECT_EQ(planned(ground).words.front(), "/usr/bin/sudo");
}

TEST(ViewPrivilegeTest, SudoAsksAtTheTerminalOrNotAtAll) {
  PrivilegeGround ground = deviceOfOthers();
  EXPECT_EQ(planned(ground).words,
            (Words{"/usr/bin/sudo", "--", "/usr/sbin/xrdefrag", "/dev/sdb"}));
  EXPECT_TRUE(planned(ground).mayAskAtTerminal);
  ground.hasTerminal = false;
  ground.hasDesktop = false;
  EXPECT_EQ(planned(ground).words,
            (Words{"/usr/bin/sudo", "-n", "--", "/usr/sbin/xrdefrag", "/dev/sdb"}));
  EXPECT_FALSE(planned(ground).mayAskAtTerminal);
}

TEST(ViewPrivilegeTest, ADesktopWithoutTerminalAsksInAWindow) {
  PrivilegeGround ground = deviceOfOthers();
  ground.hasTerminal = false;
  EXPECT_EQ(planned(ground).words, (Words{"/usr/bin/pkexec", "/usr/sbin/xrdefrag", "/dev/sdb"}));
}

TEST(ViewPrivilegeTest, WithoutAnyHelperItSaysWhatToDo) {
  const auto launch = planLaunch(Privilege::Automatic, {.isBlockDevice = true}, kWords);
  ASSERT_FALSE(launch);
  EXPECT_EQ(launch.error().status, ExitStatus::NotStarted);
}

TEST(ViewPrivilegeTest, TheUsersChoiceIsFollowed) {
  PrivilegeGround ground = deviceOfOthers();
  EXPECT_EQ(planned(ground, Privilege::None).words, kWords);
  EXPECT_TRUE(planned(ground, Privilege::Namespace).inNamespace);
  EXPECT_EQ(planned(ground, Privilege::Pkexec).words.front(), "/usr/bin/pkexec");
  EXPECT_EQ(privilegeNamed("sudo"), Privilege::Sudo);
  EXPECT_EQ(privilegeNamed("root"), std::nullopt);
}
