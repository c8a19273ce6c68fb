// Tests of the program's own files: resource look-up order, refusal of
// names that leave the program folder, and temp names.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

// A program folder (as the host's argv[0] gives it) with a resources folder.
struct UpnpResource : ::testing::Test {
    test_dir dir;
    void SetUp() override
    {
        std::string argv0 = dir.file("velmora");
        char* arguments[] = {argv0.data(), nullptr};
        upnp_ini_file_read_cmdline(1, arguments);
        ASSERT_STREQ(dir.path.c_str(), upnp_ini_get_program_dir());
        ASSERT_EQ(0, mkdir(dir.file("resources").c_str(), 0755));
    }
    // The bytes of a resource, or "<none>" after checking that a refusal
    // leaves the outputs empty.
    static std::string read(const char* name)
    {
        int32_t size = -1;
        void* data = reinterpret_cast<void*>(1);
        int ok = upnp_read_resource(name, &size, &data);
        EXPECT_EQ(ok, data != nullptr);
        std::string bytes = ok ? std::string(static_cast<char*>(data), size_t(size)) : "<none>";
        if (!ok) {
            EXPECT_EQ(0, size);
        }
        free(data);
        return bytes;
    }
};

TEST_F(UpnpResource, ReadsFromResourcesFirstThenTheProgramFolder)
{
    ASSERT_TRUE(test_write_file(dir.file("resources/cds.xml"), std::string("in\0resources", 12)));
    ASSERT_TRUE(test_write_file(dir.file("cds.xml"), "beside"));
    ASSERT_TRUE(test_write_file(dir.file("msreg.xml"), "only beside"));
    ASSERT_TRUE(test_write_file(dir.file("resources/empty.txt"), ""));
    EXPECT_EQ(std::string("in\0resources", 12), read("cds.xml"));
    EXPECT_EQ("only beside", read("msreg.xml"));
    EXPECT_EQ("", read("empty.txt"));
    EXPECT_EQ("<none>", read("missing.xml"));
}

TEST_F(UpnpResource, RefusesNamesThatLeaveTheProgramFolderAndWhatIsNoRegularFile)
{
    ASSERT_EQ(0, mkdir(dir.file("resources/sub").c_str(), 0755));
    ASSERT_TRUE(test_write_file(dir.file("resources/sub/a.txt"), "a"));
    ASSERT_TRUE(test_write_file(dir.file("secret.txt"), "s"));
    ASSERT_EQ(0, mkdir(dir.file("resources/folder").c_str(), 0755));
    ASSERT_EQ(0, mkfifo(dir.file("resources/pipe").c_str(), 0600));
    for (const char* name : {"../../../../../../../../../../../etc/passwd", "sub/../../secret.txt", "/etc/passwd",
                             "sub\\a.txt", "", "folder",
                             "pipe"}) {           // would block if it were opened for reading
        SCOPED_TRACE(name);
        EXPECT_EQ("<none>", read(name));
    }
    EXPECT_EQ("a", read("sub/a.txt"));
    EXPECT_EQ(0, upnp_read_resource(nullptr, nullptr, nullptr));
}

TEST_F(UpnpResource, TempNamesCountUpUnderTheDatabaseFolder)
{
    char* first = upnp_temp_file_name(dir.path.c_str());
    char* second = upnp_temp_file_name(dir.path.c_str());
    std::string prefix = dir.path + "/temp/tempfile";
    ASSERT_EQ(0u, std::string(first ? first : "").find(prefix));
    ASSERT_EQ(0u, std::string(second ? second : "").find(prefix));
    EXPECT_EQ(atoi(first + prefix.size()) + 1, atoi(second + prefix.size()));
    struct stat st;
    EXPECT_EQ(0, stat(dir.file("temp").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    free(first);
    free(second);
}
