// main.cpp: velmora-dms, the program that users run. It prepares a working
// folder (the library keeps its ini file, database, log and resources
// there), writes the shared folders, name, port and address into the ini
// file, starts the library and waits for SIGINT or SIGTERM, printing the
// served addresses whenever they change, one line per library event, and
// the start, progress and end of each pass over the shared folders.
#include <velmora/dapi_dms.h>

#include "host_ini.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ifaddrs.h>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

struct host_options {
    std::vector<std::string> folders;
    std::string name, port, workdir, ip;
    int32_t mode = DAPI_MODE_FULL;
    uint32_t flags = 0;
    bool verbose = false;
};

// Where this program's own lines go. Unless --verbose is given, the
// library's start-up traces on standard output go to a file in the
// working folder instead, and this keeps the terminal.
static FILE* host_out = stdout;
static const char HOST_OUTPUT_FILE[] = "velmora-output.txt";

static const char HOST_USAGE[] =
    "usage: velmora-dms [options] [folder ...]\n"
    "Shares the folders (default: the bundled sample media) with UPnP/DLNA players.\n"
    "  --name NAME      name shown on players\n"
    "  --port PORT      HTTP port (default 9000, the next free one when busy)\n"
    "  --workdir DIR    folder for settings, database and log (default ~/.local/state/velmora)\n"
    "  --ip ADDRESS     serve on this one IPv4 address only\n"
    "  --log            write DMSLOG.txt in the working folder\n"
    "  --mode N         0 full server (default), 1 HTTP only\n"
    "  --flags N        start flags (decimal or 0x hex)\n"
    "  --verbose        show the library's own traces on the terminal too\n"
    "  --help, --version\n";

static void host_fail(const std::string& message)
{
    fprintf(stderr, "velmora-dms: %s\n", message.c_str());
    exit(2);
}

static bool host_parse_number(const char* text, unsigned long max, unsigned long* out)
{
    char* end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text, &end, 0);
    if (!*text || *end || errno || v > max || text[0] == '-')
        return false;
    *out = v;
    return true;
}

// Options that take a value, and where the value goes.
static std::string* host_value_option(host_options* o, const std::string& arg)
{
    if (arg == "--name") return &o->name;
    if (arg == "--port") return &o->port;
    if (arg == "--workdir") return &o->workdir;
    if (arg == "--ip") return &o->ip;
    return nullptr;
}

static void host_parse_numbers(host_options* o, const std::string& mode, const std::string& flags)
{
    unsigned long v;
    if (!mode.empty() && !host_parse_number(mode.c_str(), 255, &v))
        host_fail("--mode takes a number");
    if (!mode.empty())
        o->mode = int32_t(v);
    if (!flags.empty() && !host_parse_number(flags.c_str(), 0xFFFFFFFFul, &v))
        host_fail("--flags takes a number");
    if (!flags.empty())
        o->flags |= uint32_t(v);
    if (!o->port.empty() && (!host_parse_number(o->port.c_str(), 65535, &v) || v == 0))
        host_fail("--port takes a port number from 1 to 65535");
}

static host_options host_parse(int argc, char** argv)
{
    host_options o;
    std::string mode, flags;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            fputs(HOST_USAGE, stdout);
            exit(0);
        } else if (arg == "--version") {
            printf("velmora-dms %s\n", VELMORA_VERSION);
            exit(0);
        } else if (arg == "--verbose") {
            o.verbose = true;
        } else if (arg == "--log") {
            o.flags |= DAPI_FLAG_LOG;
        } else if (std::string* target = host_value_option(&o, arg)) {
            if (++i >= argc)
                host_fail(arg + " needs a value");
            *target = argv[i];
        } else if (arg == "--mode" || arg == "--flags") {
            if (++i >= argc)
                host_fail(arg + " needs a value");
            (arg == "--mode" ? mode : flags) = argv[i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            host_fail("unknown option " + arg + " (see --help)");
        } else {
            o.folders.push_back(arg);
        }
    }
    host_parse_numbers(&o, mode, flags);
    return o;
}

static std::string host_absolute(const std::string& path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

static bool host_is_dir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Resources, in order: the folder VELMORA_RESOURCES names; the installed
// folder found from the program's own place (an install tree under any
// DESTDIR or moved whole still finds its own); the source folder, for a
// program run from its build tree; the installed folder at the place the
// build was configured for, for a program copied elsewhere.
static std::string host_resources_dir()
{
    if (const char* env = getenv("VELMORA_RESOURCES"); env && *env)
        return host_absolute(env);
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n > 0) {
        exe[n] = 0;
        std::string beside = std::string(exe, strrchr(exe, '/') - exe) + "/" + VELMORA_RESOURCES_FROM_BINDIR;
        if (host_is_dir(beside))
            return host_absolute(beside);
    }
    if (host_is_dir(VELMORA_SOURCE_RESOURCES))
        return VELMORA_SOURCE_RESOURCES;
    return VELMORA_INSTALLED_RESOURCES;
}

static std::string host_default_workdir()
{
    if (const char* state = getenv("XDG_STATE_HOME"); state && *state)
        return std::string(state) + "/velmora";
    const char* home = getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.local/state/velmora";
}

static void host_make_dirs(const std::string& path)
{
    for (size_t at = 1; at <= path.size(); at++) {
        if (at < path.size() && path[at] != '/')
            continue;
        std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            host_fail("cannot create the working folder " + path + ": " + strerror(errno));
    }
    if (!host_is_dir(path) || access(path.c_str(), W_OK) != 0)
        host_fail("cannot use the working folder " + path);
}

// The library reads its resources from <workdir>/resources: point that at
// the installed ones, unless the user keeps a real folder there.
static void host_link_resources(const std::string& workdir, const std::string& resources)
{
    std::string link = workdir + "/resources";
    struct stat st;
    if (lstat(link.c_str(), &st) == 0) {
        if (!S_ISLNK(st.st_mode))
            return;
        unlink(link.c_str());
    }
    if (symlink(resources.c_str(), link.c_str()) != 0)
        fprintf(stderr, "velmora-dms: cannot link %s: %s\n", link.c_str(), strerror(errno));
}

static std::string host_shared_folders(const host_options& o, const std::string& resources)
{
    std::vector<std::string> folders = o.folders;
    if (folders.empty())
        folders.push_back(resources + "/sample-media");
    std::string list;
    for (const std::string& folder : folders) {
        if (!host_is_dir(folder))
            host_fail("folder not found: " + folder);
        std::string absolute = host_absolute(folder);
        if (absolute.find(',') != std::string::npos)
            host_fail("a folder name with a comma cannot be shared: " + absolute);
        list += (list.empty() ? "" : ",") + absolute;
    }
    return list;
}

// A person who names one address wants that address: the library, given
// one it cannot bind, would clear it and serve on every interface instead.
static void host_check_address(const std::string& ip)
{
    in_addr wanted{};
    ifaddrs* list = nullptr;
    bool found = false;
    if (inet_pton(AF_INET, ip.c_str(), &wanted) == 1 && getifaddrs(&list) == 0) {
        for (ifaddrs* a = list; a && !found; a = a->ifa_next)
            found = a->ifa_addr && a->ifa_addr->sa_family == AF_INET &&
                    reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr == wanted.s_addr;
        freeifaddrs(list);
    }
    if (!found)
        host_fail("no interface of this machine has the address " + ip);
}

static host_ini_settings host_settings(const host_options& o, const std::string& folders)
{
    host_ini_settings settings = {{"contentdir", folders}};
    if (!o.name.empty())
        settings.push_back({"friendlyname", o.name});
    if (!o.port.empty())
        settings.push_back({"httpport", o.port});
    // The address holds for one run: a start without it serves every
    // interface, even after a run that was kept to 127.0.0.1.
    if (!o.ip.empty())
        host_check_address(o.ip);
    settings.push_back({"ip", o.ip});
    return settings;
}

struct host_event_name { int32_t code; const char* name; };

static const host_event_name host_event_names[] = {
    {DAPI_EVENT_FILE_ADDED, "file added"},
    {DAPI_EVENT_CLIENT_ADDED, "client added"},
    {DAPI_EVENT_STREAM_STARTED, "stream started"},
    {DAPI_EVENT_STREAM_FINISHED, "stream finished"},
    {DAPI_EVENT_STREAM_FAILED, "stream failed"},
    {DAPI_EVENT_NIC_RESTART, "network restart"},
};

// The program's lines come from its own thread and the library's threads;
// one lock keeps each line whole and in one piece on the terminal.
static std::mutex host_out_lock;

static void host_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void host_print(const char* format, ...)
{
    std::lock_guard<std::mutex> hold(host_out_lock);
    va_list args;
    va_start(args, format);
    vfprintf(host_out, format, args);
    va_end(args);
    fflush(host_out);
}

// A pass over the shared folders reports "started", "progress" or
// "finished" with folders walked, files seen, files admitted and the
// milliseconds since it began.
static void host_on_scan(const char* text)
{
    char phase[16];
    unsigned folders = 0, seen = 0, admitted = 0;
    unsigned long ms = 0;
    if (!text || sscanf(text, "%15s %u %u %u %lu", phase, &folders, &seen, &admitted, &ms) != 5)
        return;
    double seconds = double(ms) / 1000.0;
    // Seen files over the time the walk took; a pass of under a millisecond counts as one.
    double rate = double(seen) / (ms ? seconds : 0.001);
    if (strcmp(phase, "started") == 0)
        host_print("Scanning the shared folders...\n");
    else if (strcmp(phase, "progress") == 0)
        host_print("Scanned %u folders, %u files seen, %u admitted, %.0f files/s\n", folders, seen, admitted, rate);
    else if (strcmp(phase, "finished") == 0)
        host_print("Scan finished: %u folders, %u files seen, %u admitted in %.1f s (%.0f files/s)\n", folders, seen,
                   admitted, seconds, rate);
}

// A scan admits files by the thousand; one line each only when asked for.
static bool host_verbose;

// Runs on the library's threads, which wait for it: short, one line.
static int32_t host_on_event(int32_t code, const char* text)
{
    if (code == DAPI_EVENT_SCAN) {
        host_on_scan(text);
        return 0;
    }
    if (code == DAPI_EVENT_FILE_ADDED && !host_verbose)
        return 0;
    const char* name = "event";
    for (const host_event_name& e : host_event_names)
        if (e.code == code)
            name = e.name;
    char stamp[32];
    time_t now = time(nullptr);
    struct tm local;
    strftime(stamp, sizeof stamp, "%H:%M:%S", localtime_r(&now, &local));
    // A request head spans lines; its first line says enough.
    std::string first = text ? text : "";
    first = first.substr(0, first.find_first_of("\r\n"));
    host_print("%s %s %s\n", stamp, name, first.c_str());
    return 0;
}

static std::string host_nic_text()
{
    nic_entry* list = nullptr;
    uint32_t count = 0;
    dapi_dms_get_niclist(&list, &count);
    std::string text;
    for (uint32_t i = 0; list && i < count; i++) {
        std::string base = "http://" + std::string(list[i].ip) + ":" + std::to_string(list[i].port) + "/";
        text += "Serving on " + base + "\nDescription " + base + "DeviceDescription.xml\n";
    }
    return text.empty() ? "Waiting for a network interface...\n" : text;
}

// Waits for SIGINT or SIGTERM, printing the served addresses when they change.
static void host_wait(const sigset_t* stop)
{
    std::string shown;
    for (;;) {
        std::string now = host_nic_text();
        if (now != shown) {
            host_print("%s", now.c_str());
            shown = now;
        }
        struct timespec tick = {1, 0};
        if (sigtimedwait(stop, nullptr, &tick) > 0)
            return;
    }
}

// The terminal stays this program's; the library's traces go to the file.
static void host_quiet_library(const std::string& workdir)
{
    int terminal = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    int file = open((workdir + "/" + HOST_OUTPUT_FILE).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FILE* out = terminal >= 0 ? fdopen(terminal, "w") : nullptr;
    if (!out || file < 0 || dup2(file, STDOUT_FILENO) < 0) {
        fprintf(stderr, "velmora-dms: the library's output stays on the terminal\n");
        if (out)
            fclose(out);
    } else {
        host_out = out;
    }
    if (file >= 0)
        close(file);
}

int main(int argc, char** argv)
{
    host_options o = host_parse(argc, argv);
    std::string resources = host_resources_dir();
    std::string folders = host_shared_folders(o, resources);
    std::string workdir = host_absolute(o.workdir.empty() ? host_default_workdir() : o.workdir);
    host_make_dirs(workdir);
    workdir = host_absolute(workdir);
    host_link_resources(workdir, resources);

    const char* ini_name = o.mode == DAPI_MODE_SIMPLE ? "velmora-mediaserver-simple.ini" : "velmora-mediaserver.ini";
    std::string error;
    if (!host_ini_apply(workdir + "/" + ini_name, host_settings(o, folders), &error))
        host_fail(error);
    if (chdir(workdir.c_str()) != 0)
        host_fail("cannot enter " + workdir + ": " + strerror(errno));

    // Blocked before the library starts its threads, so that they inherit
    // the mask and only this thread takes the stop signals.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    host_verbose = o.verbose;
    if (!o.verbose)
        host_quiet_library(workdir);

    dapi_dms_register_callback(host_on_event);
    if (!dapi_dms_init(o.mode, o.flags))
        host_fail("the server did not start");
    char* name = nullptr;
    char* udn = nullptr;
    dapi_dms_get_servername(&name);
    dapi_dms_get_udn(&udn);
    // Without a name of its own the server makes one from the host name.
    std::string shown = name && *name ? "\"" + std::string(name) + "\"" : "(default name)";
    host_print("Velmora media server %s: %s (%s)\n", VELMORA_VERSION, shown.c_str(), udn ? udn : "");
    host_print("Sharing %s\nWorking folder %s\n", folders.c_str(), workdir.c_str());
    host_wait(&stop);
    host_print("Stopping...\n");
    dapi_dms_terminate();
    return 0;
}
