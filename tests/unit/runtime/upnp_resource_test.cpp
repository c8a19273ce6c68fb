// Tests of the program's own files: resource look-up order, refusal of
// names that leave the program folder, temp names and the program folder.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

// Points the program folder at dir, the way the host's argv[0] does.
static void resource_use_program_dir(const test_dir& dir)
{
    std::string argv0 = dir.file("velmora");
    char* arguments[] = {argv0.data(), nullptr};
    upnp_ini_file_read_cmdline(1, arguments);
    ASSERT_STREQ(dir.path.c_str(), upnp_ini_get_program_dir());
}

static std::string resource_read(const char* name, int* result)
{
    int32_t size = -1;
    void* data = reinterpret_cast<void*>(1);
    *result = upnp_read_resource(name, &size, &data);
    std::string bytes = data ? std::string(static_cast<char*>(data), size_t(size)) : "<none>";
    if (!*result) {
        EXPECT_EQ(0, size);
        EXPECT_EQ(nullptr, data);
    }
    free(data);
    return bytes;
}

TEST(UpnpResource, ReadsFromResourcesFirstThenTheProgramFolder)
{
    test_dir dir;
    resource_use_program_dir(dir);
    mkdir(dir.file("resources").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dir.file("resources/cds.xml"), std::string("in\0resources", 12)));
    ASSERT_TRUE(test_write_file(dir.file("cds.xml"), "beside"));
    ASSERT_TRUE(test_write_file(dir.file("msreg.xml"), "only beside"));
    ASSERT_TRUE(test_write_file(dir.file("resources/empty.txt"), ""));
    int ok;
    EXPECT_EQ(std::string("in\0resources", 12), resource_read("cds.xml", &ok));
    EXPECT_EQ(1, ok);
    EXPECT_EQ("only beside", resource_read("msreg.xml", &ok));
    EXPECT_EQ(1, ok);
    EXPECT_EQ("", resource_read("empty.txt", &ok));
    EXPECT_EQ(1, ok);
    EXPECT_EQ("<none>", resource_read("missing.xml", &ok));
    EXPECT_EQ(0, ok);
}

TEST(UpnpResource, RefusesNamesThatLeaveTheProgramFolder)
{
    test_dir dir;
    resource_use_program_dir(dir);
    mkdir(dir.file("resources").c_str(), 0755);
    mkdir(dir.file("resources/sub").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dir.file("resources/sub/a.txt"), "a"));
    ASSERT_TRUE(test_write_file(dir.file("secret.txt"), "s"));
    const char* refused[] = {
        "../../../../../../../../../../../etc/passwd",
        "sub/../../secret.txt",
        "/etc/passwd",
        "sub\\a.txt",
        "",
    };
    for (const char* name : refused) {
        SCOPED_TRACE(name);
        int ok;
        resource_read(name, &ok);
        EXPECT_EQ(0, ok);
    }
    int ok;
    EXPECT_EQ("a", resource_read("sub/a.txt", &ok));
    EXPECT_EQ(0, upnp_read_resource(nullptr, nullptr, nullptr));
}

TEST(UpnpResource, SkipsWhatIsNotARegularFile)
{
    test_dir dir;
    resource_use_program_dir(dir);
    mkdir(dir.file("resources").c_str(), 0755);
    mkdir(dir.file("resources/folder").c_str(), 0755);
    ASSERT_EQ(0, mkfifo(dir.file("resources/pipe").c_str(), 0600));
    int ok;
    resource_read("folder", &ok);
    EXPECT_EQ(0, ok);
    resource_read("pipe", &ok);      // would block if it were opened for reading
    EXPECT_EQ(0, ok);
}

TEST(UpnpResource, TempNamesCountUpUnderTheDatabaseFolder)
{
    test_dir dir;
    upnp_ini_set(UPNP_OPT_DBDIR, dir.path.c_str());
    char* first = upnp_temp_file_name();
    char* second = upnp_temp_file_name();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    std::string prefix = dir.path + "/temp/tempfile";
    ASSERT_EQ(0u, std::string(first).find(prefix));
    ASSERT_EQ(0u, std::string(second).find(prefix));
    EXPECT_EQ(atoi(first + prefix.size()) + 1, atoi(second + prefix.size()));
    struct stat st;
    EXPECT_EQ(0, stat(dir.file("temp").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    free(first);
    free(second);
}

TEST(UpnpResource, ModuleDirIsTheFolderOfTheExecutable)
{
    char* folder = upnp_module_dir();
    ASSERT_NE(nullptr, folder);
    std::string text = folder;
    free(folder);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ('/', text[0]);
    EXPECT_NE('/', text.back());
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    ASSERT_GT(n, 0);
    exe[n] = 0;
    struct stat running, found;
    ASSERT_EQ(0, stat("/proc/self/exe", &running));
    ASSERT_EQ(0, stat((text + strrchr(exe, '/')).c_str(), &found));
    EXPECT_EQ(running.st_ino, found.st_ino);
    EXPECT_EQ(running.st_dev, found.st_dev);
}
