// Files read whole, directories made, a file followed for changes, and bounded copies into fixed buffers.
#include "sdk/BoundedStr.h"
#include "sdk/DirUtils.h"
#include "sdk/FileChangeNotifier.h"
#include "sdk/FileUtils.h"

#include "TestCommon.h"

#include <sys/stat.h>

#include <cstring>

namespace {

TEST(FileUtils, ReadFileReadsEveryByteUpToItsLimit)
{
    const TestSupport::TempDir dir;
    const std::string big(8192 * 2 + 1, 'b');  // a read past the buffer, and a last read of one byte
    std::string content;
    for (const std::string& text : {std::string("x"), std::string(), big}) {
        ASSERT_EQ(SDK::FileUtils::ReadFile(dir.Write("f", text), content), 0);
        EXPECT_EQ(content, text);
    }
    ASSERT_EQ(SDK::FileUtils::ReadFile(dir.path() + "/f", content, 10), 0);
    EXPECT_EQ(content, big.substr(0, 10));
    EXPECT_EQ(SDK::FileUtils::ReadFile(dir.path() + "/none", content), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(SDK::FileUtils::IsFile(dir.path() + "/f"));
    EXPECT_FALSE(SDK::FileUtils::IsFile(dir.path()));
}

TEST(DirUtils, CreateDirsMakesEachMissingParentAndNothingElse)
{
    const TestSupport::TempDir dir;
    const std::string deep = dir.path() + "/alpha/beta/gamma";
    ASSERT_EQ(SDK::DirUtils::CreateDirs(deep, 0700), 0);
    EXPECT_TRUE(SDK::DirUtils::IsDir(deep));
    EXPECT_EQ(SDK::DirUtils::CreateDirs(deep), 0) << "an existing directory is success";
    std::vector<std::string> names;
    ASSERT_EQ(SDK::DirUtils::ListEntries(dir.path(), names), 0);
    EXPECT_EQ(names, std::vector<std::string>{"alpha"}) << "no directory named by a part of a name";
    ASSERT_EQ(SDK::DirUtils::ListEntries(dir.path() + "/alpha", names), 0);
    EXPECT_EQ(names, std::vector<std::string>{"beta"});
    struct stat st {};
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700U);

    dir.Write("file", "x");
    EXPECT_EQ(SDK::DirUtils::CreateDirs(dir.path() + "/file/below"), -1) << "a file in the way";
    EXPECT_EQ(SDK::DirUtils::CreateDirs(""), -1);
}

TEST(FileChangeNotifier, TellsOfItsFileAloneAndHoldsOneDescriptorHoweverOftenStarted)
{
    const TestSupport::TempDir dir;
    const std::string file = dir.Write("log", "");
    const size_t before = TestSupport::OpenFileCount();
    {
        SDK::FileChangeNotifier notifier;
        EXPECT_EQ(notifier.Fd(), -1);
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(notifier.Start(file));
        }
        EXPECT_EQ(TestSupport::OpenFileCount(), before + 1);
        dir.Write("other", "x");
        EXPECT_FALSE(notifier.Drain()) << "another file of the directory";
        dir.Write("log", "line\n");
        EXPECT_TRUE(notifier.Drain());
        EXPECT_FALSE(notifier.Drain()) << "each change once";
        EXPECT_FALSE(notifier.Start(dir.path() + "/missing/log")) << "its directory must exist";
        EXPECT_EQ(notifier.Fd(), -1);
    }
    EXPECT_EQ(TestSupport::OpenFileCount(), before);
}

// Each case: the destination's size, the source, what is returned and what dest holds.
TEST(BoundedStr, CopiesAndFormatsOnlyWhatFitsWithItsTerminator)
{
    struct Case {
        size_t size;
        const char* src;
        int copied;
        const char* dest;
    };
    for (const Case& c : {Case{1, "", 0, ""}, Case{1, "a", -1, ""}, Case{2, "a", 0, "a"}, Case{4, "abcd", -1, ""}, Case{8, nullptr, -1, ""}}) {
        char dest[8] = "zzzzzzz";
        EXPECT_EQ(SDK::strcpy_s(dest, c.size, c.src), c.copied) << c.size << " " << (c.src ? c.src : "null");
        EXPECT_STREQ(dest, c.dest);
        const std::string text = c.src != nullptr ? c.src : "";
        const bool fits = text.size() < c.size;
        char formatted[8] = "zzzzzzz";
        EXPECT_EQ(SDK::snprintf_s(formatted, c.size, "%s", text.c_str()), fits ? static_cast<int>(text.size()) : -1) << c.size;
        EXPECT_STREQ(formatted, fits ? text.c_str() : "");
    }
    char untouched[2] = "z";
    EXPECT_EQ(SDK::strcpy_s(untouched, 0, "a"), -1);
    EXPECT_EQ(SDK::snprintf_s(untouched, 0, "a"), -1);
    EXPECT_STREQ(untouched, "z") << "a size of zero writes nothing";
}

}  // namespace
