// The database file under a kill. A child process stores, rewrites and
// frees records and sets folder times in one file, telling the parent
// through a pipe before and after each write; the parent kills it with
// SIGKILL at a random moment, then opens the same file itself. 100 times
// over, the file must load without a damaged record and hold every record
// whose write had returned, with the text of its last finished write (or,
// for the one write in flight, the old or the new text); freed records stay
// gone, and nothing else appears but the record of a store in flight.
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

enum crash_op : uint8_t { CRASH_STORE, CRASH_REWRITE, CRASH_FREE, CRASH_FOLDER };

// Sent before (end 0) and after (end 1) each write: the block written or
// freed; a store's block comes with its end.
struct crash_msg { uint32_t seq, block; uint8_t op, end; };

constexpr int CRASH_ROUNDS = 100;
constexpr uint32_t CRASH_OPS_MAX = 4000;     // the child waits for its end after these

// The text of write seq in round: lengths up to six blocks, never one that
// the format refuses.
std::string crash_text(int round, uint32_t seq)
{
    uint32_t h = uint32_t(round + 1) * 2654435761u ^ seq * 2246822519u;
    size_t n = 2 + h % 3000;
    if ((n - 1) % 502 == 0)
        n++;
    std::string s = "r" + std::to_string(round) + "s" + std::to_string(seq) + ":";
    while (s.size() < n)
        s += char('a' + (s.size() * 31 + h) % 26);
    s.resize(n);
    return s;
}

std::string crash_folder(uint32_t seq) { return "A|/folder" + std::to_string(seq % 5); }

void crash_send(int fd, const crash_msg& m) { if (write(fd, &m, sizeof m) != sizeof m) _exit(3); }

// The child: writes until it is killed. It knows the records of earlier
// rounds from the parent's memory, copied by fork.
[[noreturn]] void crash_child(int fd, int round, std::vector<uint32_t> blocks)
{
    if (!db_file_open())
        _exit(2);
    std::mt19937 rng(uint32_t(round) * 7919u + 1);
    for (uint32_t seq = 1; seq <= CRASH_OPS_MAX; seq++) {
        uint32_t r = rng() % 100;
        uint8_t op = blocks.empty() || r < 30 ? CRASH_STORE
                     : r < 70               ? CRASH_REWRITE
                     : r < 95               ? CRASH_FREE
                                            : CRASH_FOLDER;
        size_t pick = blocks.empty() ? 0 : rng() % blocks.size();
        crash_msg m = {seq, op == CRASH_REWRITE || op == CRASH_FREE ? blocks[pick] : 0, op, 0};
        std::string text = crash_text(round, seq);
        crash_send(fd, m);
        if (op == CRASH_STORE) {
            m.block = db_file_store(text.data(), int32_t(text.size()));
        } else if (op == CRASH_REWRITE) {
            upnp_string* s = upnp_string_append_bytes(nullptr, text.data(), int32_t(text.size()));
            m.block = db_file_rewrite(m.block, s) ? m.block : 0;
            upnp_string_free(s);
        } else if (op == CRASH_FREE) {
            db_file_free_chain(m.block);
        } else {
            db_file_set_folder_time(crash_folder(seq).c_str(), seq);
        }
        if (op <= CRASH_REWRITE && !m.block)
            _exit(4);
        m.end = 1;
        crash_send(fd, m);
        if (op == CRASH_STORE)
            blocks.push_back(m.block);
        if (op == CRASH_FREE)
            blocks.erase(blocks.begin() + long(pick));
    }
    for (;;)
        pause();
}

// Reads the child's messages until the deadline, kills it, then reads the
// rest; a killed child's pipe ends once it is reaped. The delay counts from
// the child's first message, so that a slow start on a loaded machine does
// not eat it; a child that says nothing for 5 s is killed all the same.
std::vector<crash_msg> crash_run_and_kill(pid_t child, int fd, int delay_us)
{
    using clock = std::chrono::steady_clock;
    std::string bytes;
    char buffer[4096];
    for (auto kill_at = clock::now() + std::chrono::seconds(5); clock::now() < kill_at;) {
        pollfd p = {fd, POLLIN, 0};
        poll(&p, 1, 1);
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0 && bytes.empty())
            kill_at = clock::now() + std::chrono::microseconds(delay_us);
        if (n > 0)
            bytes.append(buffer, size_t(n));
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;)    // the rest, the child reaped
        bytes.append(buffer, size_t(n));
    std::vector<crash_msg> msgs(bytes.size() / sizeof(crash_msg));
    if (!msgs.empty())
        memcpy(msgs.data(), bytes.data(), msgs.size() * sizeof(crash_msg));
    return msgs;
}

struct crash_state {
    std::map<uint32_t, std::string> records;        // block -> text of the last finished write
    std::map<std::string, int64_t> folders;
};

// Takes in the round's finished writes, then checks the file against the
// state: the write in flight (begun, never ended) may show either way, and
// the state takes what the file shows.
void crash_check(crash_state* state, int round, const std::vector<crash_msg>& msgs)
{
    const crash_msg* flight = nullptr;
    for (const crash_msg& m : msgs) {
        flight = m.end ? nullptr : &m;
        if (!m.end)
            continue;
        if (m.op == CRASH_STORE || m.op == CRASH_REWRITE)
            state->records[m.block] = crash_text(round, m.seq);
        else if (m.op == CRASH_FREE)
            state->records.erase(m.block);
        else
            state->folders[crash_folder(m.seq)] = m.seq;
    }
    std::map<uint32_t, std::string> found;
    db_file_walk_result result;
    db_file_walk(nullptr, [](uint32_t block, const char* text, int32_t length, void* context) {
        (*static_cast<std::map<uint32_t, std::string>*>(context))[block] = std::string(text, size_t(length));
    }, &found, &result);
    EXPECT_EQ(0u, result.skipped);
    uint8_t op = flight ? flight->op : 0xFF;
    std::string flight_text = flight ? crash_text(round, flight->seq) : "";
    for (auto& [block, text] : state->records) {
        auto it = found.find(block);
        bool in_flight = flight && flight->block == block;
        if (in_flight && op == CRASH_FREE && it == found.end())
            continue;
        ASSERT_NE(found.end(), it) << "block " << block << " lost";
        if (in_flight && op == CRASH_REWRITE && it->second == flight_text)
            text = flight_text;
        EXPECT_EQ(text, it->second) << "block " << block;
    }
    if (op == CRASH_FREE && !found.count(flight->block))
        state->records.erase(flight->block);
    for (auto& [block, text] : found) {
        if (state->records.count(block))
            continue;
        EXPECT_TRUE(op == CRASH_STORE && text == flight_text) << "stray record at " << block;
        state->records[block] = text;
    }
    std::string flight_folder = op == CRASH_FOLDER ? crash_folder(flight->seq) : "";
    for (auto& [folder, time] : state->folders) {
        int64_t now = db_file_get_folder_time(folder.c_str());
        if (folder == flight_folder && now == int64_t(flight->seq))
            time = now;
        EXPECT_EQ(time, now) << folder;
    }
    int64_t flight_time = op == CRASH_FOLDER ? db_file_get_folder_time(flight_folder.c_str()) : 0;
    if (flight_time && !state->folders.count(flight_folder))
        state->folders[flight_folder] = flight_time;
}

TEST(DbCrash, KilledWritersLeaveEveryFinishedRecordLoadable)
{
    test_dir dir;
    int32_t saved_full_mode = upnp_switches.full_mode;
    upnp_switches.full_mode = 1;
    upnp_ini_set(UPNP_OPT_DBDIR, dir.path.c_str());
    crash_state state;
    std::mt19937 rng(20240607);
    int rounds_with_writes = 0;
    for (int round = 0; round < CRASH_ROUNDS && !HasFatalFailure(); round++) {
        SCOPED_TRACE(round);
        std::vector<uint32_t> blocks;
        for (auto& r : state.records)
            blocks.push_back(r.first);
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(fds[0]);
            crash_child(fds[1], round, blocks);
        }
        close(fds[1]);
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        std::vector<crash_msg> msgs = crash_run_and_kill(child, fds[0], 2000 + int(rng() % 25000));
        close(fds[0]);
        rounds_with_writes += msgs.size() >= 2;
        ASSERT_TRUE(db_file_open());
        crash_check(&state, round, msgs);
        db_file_close();
    }
    upnp_ini_set(UPNP_OPT_DBDIR, "");
    upnp_switches.full_mode = saved_full_mode;
    // Most kills must meet the writer at work, not before it began.
    EXPECT_GT(rounds_with_writes, CRASH_ROUNDS / 2);
}

}   // namespace
