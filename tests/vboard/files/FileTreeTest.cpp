// SPDX-License-Identifier: MIT
#include "vboard/kernel/FileTree.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vboard::kernel::Entry;
using vboard::kernel::FileTree;
using vboard::kernel::Node;
using vboard::kernel::OpenResult;

class PlainNode : public Node {
 public:
  using Node::Node;
  OpenResult open(int) override { return {}; }
};

std::shared_ptr<Node> makeNode(const std::string& path, unsigned majorNumber,
                               unsigned minorNumber) {
  return std::make_shared<PlainNode>(path, makedev(majorNumber, minorNumber));
}

TEST(FileTree, FindsADeviceByItsPath) {
  FileTree tree;
  const auto node = makeNode("/dev/spidev1.0", 153, 0);
  tree.addDevice(node);
  const Entry* entry = tree.find("/dev/spidev1.0");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->kind, Entry::Kind::Device);
  EXPECT_EQ(entry->node, node);
  EXPECT_EQ(tree.find("/dev/spidev1.1"), nullptr);
}

TEST(FileTree, FindsADeviceByItsNumbers) {
  FileTree tree;
  const auto node = makeNode("/dev/gpiochip3", 254, 3);
  tree.addDevice(node);
  EXPECT_EQ(tree.resolve("/dev/char/254:3"), "/dev/gpiochip3");
  EXPECT_EQ(tree.resolve("/sys/dev/char/254:3/subsystem"), "/sys/bus/gpio");
  ASSERT_NE(tree.find("/dev/char/254:3"), nullptr);
  EXPECT_EQ(tree.find("/dev/char/254:3")->node, node);
}

TEST(FileTree, FollowsALinkInTheMiddleButNotInTheLastPlaceWhenAskedNotTo) {
  FileTree tree;
  tree.addText("/sys/devices/thing/dev", "1:2\n");
  tree.addLink("/sys/bus/toy/devices/thing", "../../../devices/thing");
  ASSERT_NE(tree.findNoFollow("/sys/bus/toy/devices/thing"), nullptr);
  EXPECT_EQ(tree.findNoFollow("/sys/bus/toy/devices/thing")->kind, Entry::Kind::Link);
  ASSERT_NE(tree.find("/sys/bus/toy/devices/thing"), nullptr);
  EXPECT_EQ(tree.find("/sys/bus/toy/devices/thing")->kind, Entry::Kind::Directory);
  ASSERT_NE(tree.findNoFollow("/sys/bus/toy/devices/thing/dev"), nullptr);
  EXPECT_EQ(tree.findNoFollow("/sys/bus/toy/devices/thing/dev")->text, "1:2\n");
}

TEST(FileTree, LinksThatRunInCirclesLeadNowhere) {
  FileTree tree;
  tree.addLink("/dev/first", "second");
  tree.addLink("/dev/second", "/dev/first");
  EXPECT_EQ(tree.find("/dev/first"), nullptr);
  EXPECT_EQ(tree.resolve("/dev/first"), "");
}

TEST(FileTree, NamesOfADirectoryAreThoseDirectlyInIt) {
  FileTree tree;
  tree.addDevice(makeNode("/dev/spidev1.1", 153, 1));
  tree.addDevice(makeNode("/dev/spidev1.0", 153, 0));
  EXPECT_THAT(tree.namesIn("/dev"), ElementsAre("char", "spidev1.0", "spidev1.1"));
  EXPECT_THAT(tree.namesIn("/sys/class/spidev"), ElementsAre("spidev1.0", "spidev1.1"));
  EXPECT_THAT(tree.namesIn("/sys/class/spidev/spidev1.0"),
              ElementsAre("dev", "device", "subsystem", "uevent"));
  EXPECT_THAT(tree.namesIn("/de"), IsEmpty());
}

TEST(FileTree, ARemovedDeviceTakesItsNamesAlong) {
  FileTree tree;
  const auto node = makeNode("/dev/gpiochip0", 254, 0);
  tree.addDevice(node);
  node->setRemoved(true);
  EXPECT_EQ(tree.find("/dev/gpiochip0"), nullptr);
  EXPECT_EQ(tree.find("/sys/bus/gpio/devices/gpiochip0/dev"), nullptr);
  EXPECT_THAT(tree.namesIn("/sys/bus/gpio/devices"), IsEmpty());
  EXPECT_NE(tree.findNode("/dev/gpiochip0"), nullptr);
  node->setRemoved(false);
  EXPECT_NE(tree.find("/dev/gpiochip0"), nullptr);
  EXPECT_THAT(tree.namesIn("/sys/bus/gpio/devices"), ElementsAre("gpiochip0"));
}

TEST(FileTree, ClearForgetsEverything) {
  FileTree tree;
  tree.addText("/sys/devices/thing/dev", "1:2\n");
  tree.clear();
  EXPECT_EQ(tree.find("/sys/devices/thing/dev"), nullptr);
  EXPECT_EQ(tree.find("/sys"), nullptr);
}

TEST(FileTree, NormalisesPathsWithoutLookingAtTheFileSystem) {
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, "/dev//./spidev1.0"), "/dev/spidev1.0");
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, "/no/such/../../dev/spidev1.0/"), "/dev/spidev1.0");
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, "/../.."), "/");
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, ""), "");
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, nullptr), "");
}

TEST(FileTree, NormalisesRelativePathsAgainstADirectoryDescriptor) {
  const int directory = ::open("/dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(directory, 0);
  EXPECT_EQ(FileTree::normalise(directory, "spidev1.0"), "/dev/spidev1.0");
  EXPECT_EQ(FileTree::normalise(directory, "../sys"), "/sys");
  ::close(directory);
  EXPECT_EQ(FileTree::normalise(directory, "spidev1.0"), "");
}

TEST(FileTree, NormalisesRelativePathsAgainstTheWorkingDirectory) {
  char before[4096];
  ASSERT_NE(::getcwd(before, sizeof(before)), nullptr);
  ASSERT_EQ(::chdir("/dev"), 0);
  EXPECT_EQ(FileTree::normalise(AT_FDCWD, "./spidev1.0"), "/dev/spidev1.0");
  ASSERT_EQ(::chdir(before), 0);
}

TEST(FileTree, HidesDevicesOfTheEmulatedKindsAndNothingElse) {
  EXPECT_TRUE(FileTree::isHidden("/dev/spidev0.0"));
  EXPECT_TRUE(FileTree::isHidden("/dev/gpiochip17"));
  EXPECT_TRUE(FileTree::isHidden("/sys/bus/gpio/devices/gpiochip0/dev"));
  EXPECT_TRUE(FileTree::isHidden("/sys/class/spidev/spidev0.0"));
  EXPECT_TRUE(FileTree::isHidden("/sys/class/gpio/export"));
  EXPECT_FALSE(FileTree::isHidden("/dev"));
  EXPECT_FALSE(FileTree::isHidden("/dev/null"));
  EXPECT_FALSE(FileTree::isHidden("/home/dev/spidev0.0"));
  EXPECT_FALSE(FileTree::isHidden("/sys/class/gpio"));
  EXPECT_FALSE(FileTree::isHidden("/sys/dev/char/1:3"));
}

TEST(FileTree, KnowsWhichListingsMustBeFiltered) {
  EXPECT_TRUE(FileTree::hidesNamesIn("/dev"));
  EXPECT_TRUE(FileTree::hidesNamesIn("/sys/bus/gpio/devices"));
  EXPECT_TRUE(FileTree::hidesNamesIn("/sys/dev/char"));
  EXPECT_FALSE(FileTree::hidesNamesIn("/"));
  EXPECT_FALSE(FileTree::hidesNamesIn("/sys/bus/gpio"));
}

}  // namespace
