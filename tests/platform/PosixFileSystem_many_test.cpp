#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "common/Digest.h"
#include "platform/PosixFileSystem.h"
#include "tests/support/ScratchRoot.h"

// What is done with many files at once.

namespace tessard {

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

// Enough for two threads.
constexpr std::size_t kMany = 200;
constexpr std::size_t kLimit = 1 << 20;

class ManyFilesTest : public testing::Test {
 protected:
  ScratchRoot root;
  PosixFileSystem files{root.path()};

  static std::string pathOf(std::size_t i) { return "/etc/file" + std::to_string(i); }
  static std::string contentOf(std::size_t i) { return std::string(i, 'x') + std::to_string(i); }

  static std::vector<std::string> paths() {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < kMany; ++i) all.push_back(pathOf(i));
    return all;
  }

  static std::vector<NewFile> newFiles() {
    std::vector<NewFile> all;
    for (std::size_t i = 0; i < kMany; ++i) {
      all.push_back({pathOf(i), contentOf(i), {std::nullopt, std::nullopt, i % 2 ? 0640 : 0600}});
    }
    return all;
  }

  void expectIs(const FileAttributes& told, const std::string& path) {
    const FileAttributes is = files.attributes(path).value();
    EXPECT_EQ(told.inode, is.inode) << path;
    EXPECT_EQ(told.device, is.device) << path;
    EXPECT_EQ(told.size, is.size) << path;
    EXPECT_EQ(told.modified, is.modified) << path;
    EXPECT_EQ(told.owner, is.owner) << path;
    EXPECT_EQ(told.permissions, is.permissions) << path;
  }

  template <class T>
  static std::vector<int> codesOf(const std::vector<Result<T>>& results) {
    std::vector<int> codes;
    for (const auto& result : results) codes.push_back(result ? 0 : result.error().code());
    return codes;
  }
};

TEST_F(ManyFilesTest, AreMadeEachWithItsContentAndToldAsTheyAre) {
  root.makeDirectory("/etc");
  const auto made = files.createFiles(newFiles());
  ASSERT_THAT(made, SizeIs(kMany));
  for (std::size_t i = 0; i < kMany; ++i) {
    ASSERT_TRUE(made[i]) << i;
    EXPECT_EQ(root.read(pathOf(i)), contentOf(i));
    EXPECT_EQ(root.mode(pathOf(i)), i % 2 ? 0640U : 0600U);
    expectIs(made[i].value(), pathOf(i));
  }
  ASSERT_TRUE(files.flush(paths()));
}

TEST_F(ManyFilesTest, AreMadeThoughOthersCannotBe) {
  root.makeDirectory("/etc");
  std::vector<NewFile> wanted = newFiles();
  wanted[7].path = "/nowhere/file";
  wanted[kMany - 1].path = "relative";
  const auto codes = codesOf(files.createFiles(wanted));
  EXPECT_EQ(codes[7], ENOENT);
  EXPECT_EQ(codes[kMany - 1], EINVAL);
  EXPECT_EQ(std::ranges::count(codes, 0), kMany - 2);
  EXPECT_THAT(root.list("/etc"), SizeIs(kMany - 2));
}

TEST_F(ManyFilesTest, AreCopiesOfOneThatIsReadOnce) {
  const std::string content(100'000, 'c');
  root.write("/etc/source", content);
  root.setMode("/etc/source", 0640);
  const FileCopies copies = files.copyFiles("/etc/source", paths(), kLimit);
  EXPECT_EQ(copies.content, content);
  ASSERT_THAT(copies.made, SizeIs(kMany));
  for (std::size_t i = 0; i < kMany; ++i) {
    ASSERT_TRUE(copies.made[i]) << i;
    EXPECT_EQ(root.read(pathOf(i)), content);
    EXPECT_EQ(root.mode(pathOf(i)), 0640U);
    expectIs(copies.made[i].value(), pathOf(i));
  }
}

TEST_F(ManyFilesTest, AreCopiedOnlyToNamesThatAreFreeAndOfTheSameNameOnce) {
  root.write("/etc/source", "new");
  root.write(pathOf(3), "kept");
  auto wanted = paths();
  wanted[5] = wanted[4];
  const auto codes = codesOf(files.copyFiles("/etc/source", wanted, kLimit).made);
  EXPECT_EQ(codes[3], EEXIST);
  EXPECT_EQ(codes[4] + codes[5], EEXIST) << "one of the two";
  EXPECT_EQ(std::ranges::count(codes, 0), kMany - 2);
  EXPECT_EQ(root.read(pathOf(3)), "kept");
  EXPECT_EQ(root.read(pathOf(4)), "new");
}

TEST_F(ManyFilesTest, AreNoneWhereTheSourceCannotBeReadOrIsTooLong) {
  root.write("/etc/source", std::string(11, 'x'));
  EXPECT_THAT(codesOf(files.copyFiles("/etc/nothing", paths(), kLimit).made), Each(ENOENT));
  EXPECT_THAT(codesOf(files.copyFiles("/etc", paths(), kLimit).made), Each(EINVAL));
  EXPECT_THAT(codesOf(files.copyFiles("/etc/source", paths(), 10).made), Each(EFBIG));
  EXPECT_THAT(root.list("/etc"), ElementsAre("source"));
  EXPECT_THAT(codesOf(files.copyFiles("/etc/source", {"/etc/copy"}, 11).made), ElementsAre(0));
}

TEST_F(ManyFilesTest, AreToldApartByTheirFingerprints) {
  root.makeDirectory("/etc/directory");
  for (std::size_t i = 0; i < kMany; ++i) root.write(pathOf(i), contentOf(i));
  auto asked = paths();
  asked[1] = "/etc/directory";
  asked[2] = "/etc/nothing";
  const auto found = files.fingerprints(asked, kMany + 1);
  ASSERT_THAT(found, SizeIs(kMany));
  const auto codes = codesOf(found);
  EXPECT_EQ(codes[1], EINVAL);
  EXPECT_EQ(codes[2], ENOENT);
  EXPECT_EQ(codes[kMany - 1], EFBIG) << "its number has three digits";
  for (std::size_t i = 3; i < kMany - 2; ++i) {
    ASSERT_TRUE(found[i]) << i;
    EXPECT_EQ(found[i].value().digest, digestOf(contentOf(i)));
    expectIs(found[i].value().attributes, pathOf(i));
  }
}

}  // namespace

}  // namespace tessard
