#include "app/registration_file.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace ferrule {
namespace {

class RegistrationFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ferrule-regfile-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/devicereg.info";
    capture_ = testing::LogCapture::install();
    log::setGlobalLevel(log::Info);
  }
  void TearDown() override {
    std::remove(path_.c_str());
    rmdir(dir_.c_str());
    log::setGlobalLevel(log::Notice);
  }

  // Writes the file with a chosen modification time, since the poll reacts
  // to modification times with one-second resolution.
  void write(const std::string& content, int32_t mtime = 1700000000) {
    std::ofstream(path_, std::ios::trunc) << content;
    const timeval times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(path_.c_str(), times), 0);
  }

  std::string dir_, path_;
  std::shared_ptr<testing::LogCapture> capture_;
};

TEST_F(RegistrationFileTest, KeyLineRules) {
  struct Case {
    const char* content;
    const char* key;
    const char* logged;  // followed by the path
  } cases[] = {
      {"DeviceRelayKey = 0123abcd\n", "0123abcd", nullptr},
      {"devicerelaykey=abc", "abc", nullptr},
      {"\r\n  # DeviceRelayKey=no\n\t other = x \r\nDEVICERELAYKEY =\tabc def \r\n", "abc def", nullptr},
      {"DeviceRelayKey=first\nDeviceRelayKey=second\n", "first", nullptr},
      {"DeviceRelayKeyX=abc\nDeviceRelayKey=ok\n", "ok", nullptr},
      {"DeviceRelayKey=a=b&c\n", "a=b&c", nullptr},
      {"DeviceRelayKey = \n", "", nullptr},
      {"foo\nDeviceRelayKey=abc\n", "", "Invalid file syntax in "},
      {"DeviceRelayKey\n", "", "Invalid file syntax in "},
      {"# nothing\nother=1\n", "", "No DeviceRelayKey line found in file "},
  };
  for (const Case& c : cases) {
    capture_->clear();
    write(c.content);
    EXPECT_EQ(readDeviceKey(path_), c.key) << c.content;
    if (c.logged) {
      EXPECT_TRUE(capture_->contains(c.logged + path_)) << c.content;
    }
  }
  capture_->clear();
  EXPECT_EQ(readDeviceKey(dir_ + "/absent"), "");
  EXPECT_TRUE(capture_->lines().empty());
  EXPECT_EQ(fileModificationTime(dir_ + "/absent"), MinTime);
}

TEST_F(RegistrationFileTest, WatchReportsNewKeysOnlyWhenTheFileChanges) {
  auto reactor = std::make_shared<testing::ManualReactor>();
  std::vector<std::string> keys;
  auto watch = std::make_unique<RegistrationFileWatch>(reactor, path_,
                                                       [&keys](const std::string& key) { keys.push_back(key); });
  watch->start();

  reactor->advance(Duration::seconds(3));  // missing: reported once, not every second
  EXPECT_EQ(capture_->count("Registration file " + path_ + " not found"), 1u);

  write("DeviceRelayKey=one\n", 1700000000);
  reactor->advance(Duration::seconds(1));
  EXPECT_EQ(keys, std::vector<std::string>{"one"});
  EXPECT_TRUE(capture_->contains("Registration file modification is now 2023-11-14 22:13:20"));

  reactor->advance(Duration::seconds(3));  // unchanged time: not read again
  EXPECT_EQ(capture_->count("Registration file modification is now 2023-11-14 22:13:20"), 1u);

  std::remove(path_.c_str());
  reactor->advance(Duration::seconds(2));
  EXPECT_EQ(capture_->count("Registration file " + path_ + " not found"), 2u);  // once per disappearance
  write("DeviceRelayKey=one\n", 1700000100);  // same key again: read, nothing restarts
  reactor->advance(Duration::seconds(1));
  EXPECT_EQ(keys, std::vector<std::string>{"one"});

  write("garbage\n", 1700000200);  // a broken file leaves the relay running
  reactor->advance(Duration::seconds(1));
  write("DeviceRelayKey=two\n", 1700000300);
  reactor->advance(Duration::seconds(1));
  EXPECT_EQ(keys, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(watch->currentKey(), "two");
  watch.reset();  // it stops with its owner
  EXPECT_EQ(reactor->advance(Duration::seconds(5)), 0);
}

}  // namespace
}  // namespace ferrule
}  // namespace quorvel
