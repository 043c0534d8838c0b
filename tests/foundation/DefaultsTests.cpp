#include <sys/stat.h>

#include <thread>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSUserDefaults.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

class UserDefaults : public testing::Test {
 protected:
  UserDefaults() : iArguments(NSProcessInfo::arguments()) { startWith({}); }
  ~UserDefaults() override {
    std::vector<const char*> pointers;
    for (const std::string& one : iArguments) pointers.push_back(one.c_str());
    NSProcessInfo::setArguments(static_cast<int>(pointers.size()), pointers.data());
    NSUserDefaults::standardUserDefaults().reload();
  }

  // As if the program were started now with these arguments.
  void startWith(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "program");
    NSProcessInfo::setArguments(static_cast<int>(arguments.size()), arguments.data());
    iDefaults.reload();
  }
  void writeDefaults(const std::string& entries) {
    mkdir((iFolder / "ombrafs").c_str(), 0700);
    writeFile(iPath, R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><!-- settings -->)" +
                         entries + "</dict></plist>\n");
    iDefaults.reload();
  }
  bool set(PropertyValue value, std::string_view key) {
    return iDefaults.setObject(std::move(value), key, &iError);
  }

  TemporaryFolder iFolder;
  EnvironmentVariable iConfiguration{"XDG_CONFIG_HOME", iFolder.path()};
  std::string iPath = iFolder / "ombrafs/defaults.plist";
  const std::vector<std::string> iArguments;
  LogCapture iLog;
  NSUserDefaults& iDefaults = NSUserDefaults::standardUserDefaults();
  NSErrorRef iError;
};

TEST_F(UserDefaults, AreEmptyWithoutAFile) {
  EXPECT_EQ(iDefaults.objectForKey("TracingEnabled"), std::nullopt);
  EXPECT_FALSE(iDefaults.boolForKey("TracingEnabled"));
  EXPECT_EQ(iDefaults.stringForKey("TracingEnabled"), std::nullopt);
  EXPECT_TRUE(iDefaults.dictionaryRepresentation().empty());
  EXPECT_TRUE(iLog.lines().empty());
}

TEST_F(UserDefaults, ComeFromTheFile) {
  writeDefaults(
      "<key>TracingEnabled</key><true/><key>Name</key><string>nas</string><key>N</key><integer>-3</integer>"
      "<key>R</key><real>1.5</real><key>L</key><array><string>x</string></array>"
      "<key>D</key><data>AAH/</data><key>T</key><date>2001-09-09T01:46:40Z</date>");
  EXPECT_TRUE(iDefaults.boolForKey("TracingEnabled"));
  EXPECT_EQ(iDefaults.stringForKey("Name"), "nas");
  EXPECT_EQ(*iDefaults.objectForKey("N")->asInteger(), -3);
  EXPECT_EQ(*iDefaults.objectForKey("R")->asReal(), 1.5);
  EXPECT_EQ(iDefaults.objectForKey("L")->asArray()->size(), 1U);
  EXPECT_EQ(*iDefaults.objectForKey("D")->asData(), (NSData{0, 1, 255}));
  EXPECT_EQ(*iDefaults.objectForKey("T")->asDate(), NSDate::dateWithTimeIntervalSince1970(1000000000));
  EXPECT_EQ(iDefaults.dictionaryRepresentation().count(), 7U);
}

TEST_F(UserDefaults, ArgumentsComeBeforeTheFile) {
  writeDefaults("<key>TracingEnabled</key><false/><key>Other</key><string>file</string>");
  startWith({"--sock=/run/x", "-TracingEnabled", "YES", "--uuid=1", "-MountAtRemoteRoot", "1"});
  EXPECT_TRUE(iDefaults.boolForKey("TracingEnabled"));
  EXPECT_TRUE(iDefaults.boolForKey("MountAtRemoteRoot"));
  EXPECT_EQ(iDefaults.stringForKey("Other"), "file");
}

TEST_F(UserDefaults, ArgumentsNeedAKeyAndAValue) {
  startWith({"-A", "-B", "x", "-C", "--name=y", "-D", "-5", "plain", "-", "z", "-E"});
  EXPECT_EQ(iDefaults.stringForKey("A"), std::nullopt);
  EXPECT_EQ(iDefaults.stringForKey("B"), "x");
  EXPECT_EQ(iDefaults.stringForKey("C"), std::nullopt);
  EXPECT_EQ(iDefaults.stringForKey("D"), "-5");
  EXPECT_EQ(iDefaults.stringForKey("E"), std::nullopt);
  EXPECT_EQ(iDefaults.stringForKey(""), std::nullopt);
}

TEST_F(UserDefaults, LaterArgumentsReplaceEarlierOnes) {
  startWith({"-A", "1", "-A", "2"});
  EXPECT_EQ(iDefaults.stringForKey("A"), "2");
}

TEST_F(UserDefaults, BooleansAreReadFromTextsAndNumbers) {
  for (const char* text : {"YES", "yes", "True", "true", "1", "9"}) {
    iDefaults.setVolatileObject(text, "B");
    EXPECT_TRUE(iDefaults.boolForKey("B")) << text;
  }
  for (const char* text : {"NO", "no", "false", "0", "", "on"}) {
    iDefaults.setVolatileObject(text, "B");
    EXPECT_FALSE(iDefaults.boolForKey("B")) << text;
  }
  iDefaults.setVolatileObject(2, "B");
  EXPECT_TRUE(iDefaults.boolForKey("B"));
  iDefaults.setVolatileObject(0.0, "B");
  EXPECT_FALSE(iDefaults.boolForKey("B"));
  iDefaults.setVolatileObject(PropertyValue(), "B");
  EXPECT_EQ(iDefaults.objectForKey("B"), std::nullopt);
}

TEST_F(UserDefaults, NumbersAndBooleansReadAsTexts) {
  writeDefaults("<key>N</key><integer>7</integer><key>B</key><true/><key>R</key><real>1.5</real>");
  EXPECT_EQ(iDefaults.stringForKey("N"), "7");
  EXPECT_EQ(iDefaults.stringForKey("B"), "1");
  EXPECT_EQ(iDefaults.stringForKey("R"), "1.5");
}

TEST_F(UserDefaults, AreWrittenToTheFileAndReadByTheNextProcess) {
  ASSERT_TRUE(set("a & b < c \u00fc", "Text"));
  ASSERT_TRUE(set(-5, "Number"));
  ASSERT_TRUE(set(true, "Switch"));
  ASSERT_TRUE(set(NSArray{"x", 1}, "List"));
  ASSERT_TRUE(set(std::make_shared<const NSDictionary>(NSDictionary{{"k", NSData{1, 2}}}), "Inner"));
  iDefaults.reload();
  EXPECT_EQ(iDefaults.stringForKey("Text"), "a & b < c \u00fc");
  EXPECT_EQ(*iDefaults.objectForKey("Number")->asInteger(), -5);
  EXPECT_TRUE(iDefaults.boolForKey("Switch"));
  EXPECT_EQ(*iDefaults.objectForKey("List"), (NSArray{"x", 1}));
  EXPECT_EQ(*iDefaults.objectForKey("Inner")->asDictionary(), (NSDictionary{{"k", NSData{1, 2}}}));
  EXPECT_THAT(contentsOfFile(iPath), testing::StartsWith("<?xml"));
}

TEST_F(UserDefaults, NullRemovesAKeyFromTheFile) {
  ASSERT_TRUE(set("x", "A"));
  ASSERT_TRUE(set("y", "B"));
  ASSERT_TRUE(set(PropertyValue(), "A"));
  iDefaults.reload();
  EXPECT_EQ(iDefaults.dictionaryRepresentation(), (NSDictionary{{"B", "y"}}));
}

TEST_F(UserDefaults, KeepWhatAnotherProcessWroteMeanwhile) {
  ASSERT_TRUE(set("x", "A"));
  writeFile(iPath, "<plist version=\"1.0\"><dict><key>Other</key><string>o</string></dict></plist>");
  ASSERT_TRUE(set("y", "B"));
  EXPECT_EQ(iDefaults.dictionaryRepresentation(), (NSDictionary{{"Other", "o"}, {"B", "y"}}));
}

TEST_F(UserDefaults, OfABrokenFileAreEmptyAndTheFileIsKept) {
  mkdir((iFolder / "ombrafs").c_str(), 0700);
  for (const char* broken : {"", "no list", "<plist version=\"1.0\"><dict>",
                             "<plist version=\"1.0\"><string>x</string></plist>", "bplist00"}) {
    writeFile(iPath, broken);
    iDefaults.reload();
    const size_t before = iLog.lines().size();
    EXPECT_EQ(iDefaults.stringForKey("A"), std::nullopt) << broken;
    EXPECT_EQ(iLog.lines().size(), before + 1) << broken;
    EXPECT_FALSE(set("x", "A"));
    EXPECT_EQ(iError->code(), EINVAL);
    EXPECT_EQ(contentsOfFile(iPath), broken);
  }
}

TEST_F(UserDefaults, RefuseValuesThatNoListCanHold) {
  EXPECT_FALSE(set("a\x01", "A"));
  EXPECT_EQ(iError->code(), EINVAL);
  EXPECT_FALSE(set("\xff", "A"));
  EXPECT_FALSE(set(NSArray{PropertyValue()}, "A"));
  EXPECT_FALSE(set("x", "\xff"));
  EXPECT_EQ(contentsOfFile(iPath), "");
}

TEST_F(UserDefaults, TellWhenTheFileCannotBeWritten) {
  writeFile((iFolder / "ombrafs"), "a file in the way");
  EXPECT_FALSE(set("x", "A"));
  ASSERT_NE(iError, nullptr);
  EXPECT_EQ(iDefaults.stringForKey("A"), std::nullopt);
}

TEST_F(UserDefaults, OfSeveralWritersAllEndInTheFile) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      NSErrorRef error;
      EXPECT_TRUE(iDefaults.setObject(i, "Key" + std::to_string(i), &error));
    });
  }
  for (std::thread& thread : threads) thread.join();
  iDefaults.reload();
  EXPECT_EQ(iDefaults.dictionaryRepresentation().count(), 4U);
}

}  // namespace
}  // namespace ombra
