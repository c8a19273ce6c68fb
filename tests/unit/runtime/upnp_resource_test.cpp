// Tests of the program's own files: resource look-up and refusal.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

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
    // The bytes of a resource, or "<none>" when refused with empty outputs.
    static std::string read(const char* name)
    {
        int32_t size = -1;
        void* data = reinterpret_cast<void*>(1);
        int ok = upnp_read_resource(name, &size, &data);
        std::string bytes = ok && data ? std::string(static_cast<char*>(data), size_t(size))
                          : !ok && !data && !size ? "<none>" : "<bad outputs>";
        free(data);
        return bytes;
    }
};

TEST_F(UpnpResource, ReadsFromResourcesFirstThenTheProgramFolder)
{
    ASSERT_TRUE(test_write_file(dir.file("resources/cds.xml"), std::string("in\0resources", 12))
                && test_write_file(dir.file("cds.xml"), "beside") && test_write_file(dir.file("resources/e.txt"), "")
                && test_write_file(dir.file("msreg.xml"), "only beside"));
    EXPECT_EQ(std::string("in\0resources", 12), read("cds.xml"));
    EXPECT_EQ("only beside", read("msreg.xml"));
    EXPECT_EQ("", read("e.txt"));
    EXPECT_EQ("<none>", read("missing.xml"));
}

TEST_F(UpnpResource, RefusesNamesThatLeaveTheProgramFolderAndWhatIsNoRegularFile)
{
    std::string res = dir.file("resources/");
    ASSERT_TRUE(mkdir((res + "sub").c_str(), 0755) == 0 && mkfifo((res + "pipe").c_str(), 0600) == 0
                && test_write_file(res + "sub/a.txt", "a") && test_write_file(dir.file("secret.txt"), "s")
                && mkdir((res + "folder").c_str(), 0755) == 0);
    // The pipe would block if it were opened for reading.
    for (const char* name : {"../../../../../../../../../../../etc/passwd", "sub/../../secret.txt", "/etc/passwd",
                             "sub\\a.txt", "", "folder", "pipe"})
        EXPECT_EQ("<none>", read(name)) << name;
    EXPECT_EQ("a", read("sub/a.txt"));
    EXPECT_EQ(0, upnp_read_resource(nullptr, nullptr, nullptr));
}
