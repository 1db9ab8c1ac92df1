// What transfers go through: at a random moment a worker, an agent or the server is killed, the line is cut,
// the source changes or goes, the destination's disk is full, somebody cancels. Then they are restarted until
// they end, and every byte is looked at.
//
//   QX_TRANSFER_ROUNDS  rounds, 100 without it, and then no longer than 90 seconds
//   QX_TRANSFER_SEED    of the first round; each round after it has the next number
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <random>
#include <set>

#include "transfer_line_fixture.h"

namespace {

enum class incident {
    nothing,
    source_worker_killed,
    destination_worker_killed,
    line_cut,
    cancelled,
    source_agent_killed,
    destination_agent_killed,
    server_away,
    source_line_to_server_cut,
    destination_line_to_server_cut,
    source_replaced,
    source_removed,
    destination_full,
};

const char* name_of(incident what) {
    constexpr const char* names[] = {"nothing",
                                     "source's worker killed",
                                     "destination's worker killed",
                                     "line cut",
                                     "cancelled",
                                     "source's agent killed",
                                     "destination's agent killed",
                                     "server away",
                                     "source's line to the server cut",
                                     "destination's line to the server cut",
                                     "source replaced",
                                     "source removed",
                                     "destination full"};
    return names[static_cast<size_t>(what)];
}

struct source_file {
    std::string name;  // below the folder
    std::string content;
    std::string replaced_by;  // content at a later moment; empty: none
};

// What a round does; drawn from its seed alone.
struct round_plan {
    std::mt19937_64 random;
    cp_transfer wish;
    bool folder = false;
    bool something_there = false;  // under the final name of the first file
    std::vector<source_file> files;
    size_t total = 0;
    incident first = incident::nothing;

    explicit round_plan(unsigned long seed) : random(seed) {
        wish.text = chance(3);
        wish.reverse = chance(3);
        wish.compress = chance(3) ? '1' : '0';
        wish.erase = chance(6);
        wish.overwrite = chance(2) ? 'Y' : 'N';
        wish.window_num = 1 + static_cast<int>(below(8));
        wish.window_max = wish.window_num + static_cast<int>(below(8));
        wish.window_min = 1 + static_cast<int>(below(8));
        wish.source.attributes = chance(2) ? "rifreq=3" : "";
        folder = chance(2);
        something_there = wish.overwrite == 'Y' && chance(4);
        const size_t count = folder ? 1 + below(6) : 1;
        for (size_t i = 0; i < count; ++i) {
            const std::string name =
                folder ? (chance(3) ? "sub/" : "") + ("file" + std::to_string(i)) : "file";
            files.push_back({name, content(size()), ""});
            total += files.back().content.size();
        }
        first = draw_first();
        if (first == incident::source_replaced || first == incident::source_removed) {
            wish.erase = false;
        }
    }

    size_t below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }
    bool chance(size_t one_in) { return below(one_in) == 0; }

    size_t size() {
        constexpr size_t edges[] = {0, 1, 32235, 32236, 32237, 65535, 65536, 65537, 1048576, 1048577};
        if (chance(4)) {
            return edges[below(std::size(edges))];
        }
        return chance(6) ? 1048577 + below(600000) : below(250000);
    }
    std::string content(size_t length) {
        std::string text(length, '\n');
        for (size_t at = 0; at < length; at += 8) {
            const uint64_t bytes = random();
            for (size_t i = at; i < std::min(at + 8, length); ++i) {
                const auto byte = static_cast<char>(bytes >> (i - at) * 8);
                // A text's lines end as the destination writes them.
                text[i] = !wish.text                              ? byte
                          : (byte & 0x3f) == 0 || i == length - 1 ? '\n'
                                                                  : static_cast<char>('0' + (byte & 0x3f));
            }
        }
        return text;
    }
    incident draw_first() {
        constexpr std::pair<incident, size_t> weights[] = {{incident::source_worker_killed, 20},
                                                           {incident::destination_worker_killed, 20},
                                                           {incident::line_cut, 20},
                                                           {incident::cancelled, 8},
                                                           {incident::source_agent_killed, 4},
                                                           {incident::destination_agent_killed, 4},
                                                           {incident::server_away, 4},
                                                           {incident::source_line_to_server_cut, 2},
                                                           {incident::destination_line_to_server_cut, 2},
                                                           {incident::source_replaced, 6},
                                                           {incident::source_removed, 4},
                                                           {incident::destination_full, 6}};
        size_t place = below(100);
        for (const auto& [what, weight] : weights) {
            if (place < weight) {
                return what;
            }
            place -= weight;
        }
        return incident::nothing;
    }
    // Of a run that goes on: half of them meet something again.
    incident draw_next() {
        constexpr incident quick[] = {incident::source_worker_killed, incident::destination_worker_killed,
                                      incident::line_cut, incident::cancelled};
        return chance(2) ? quick[below(std::size(quick))] : incident::nothing;
    }
};

struct transfer_survival : transfer_line_test {
    std::map<pid_t, int> descriptors;  // of each agent while nothing runs
    std::set<pid_t> seen_workers;
    // Destination files that were told to be complete, and what they were then.
    std::map<std::string, struct stat> confirmed;
    std::string story_of_round;
    bool small_disk = false;

    std::string place;  // of the round

    std::string source_of(const std::string& name) const { return place + "/from/" + name; }
    std::string to(const std::string& name) const { return place + "/to/" + name; }
    static int variable(const char* name, int usual) {
        const char* value = getenv(name);
        return value != nullptr ? atoi(value) : usual;
    }

    void play(unsigned long seed);
    void lay_out(const round_plan& plan);
    int first_order(round_plan& plan);
    void meet(round_plan& plan, int run, incident what);
    void happen(round_plan& plan, int run, incident what);
    void replace_source(round_plan& plan);
    void restart_agent(installation& host, const char* name);
    void look_at_names(const round_plan& plan);
    void look_at_confirmed(int run);
    void look_at_the_end(const round_plan& plan, int run, bool removed);
    void look_for_leftovers();
    void settle();
};

bool fits(const source_file& file, const std::string& found) {
    return found == file.content || (!file.replaced_by.empty() && found == file.replaced_by);
}

void transfer_survival::lay_out(const round_plan& plan) {
    for (const source_file& file : plan.files) {
        fs::create_directories(fs::path(source_of(file.name)).parent_path());
        write_file(source_of(file.name), file.content);
    }
    fs::create_directories(to(""));
    if (plan.something_there) {
        fs::create_directories(fs::path(to(plan.files[0].name)).parent_path());
        write_file(to(plan.files[0].name), "what stood there before");
    }
    small_disk = false;
    if (plan.first == incident::destination_full && is_root()) {
        const size_t size = std::max<size_t>(plan.total / 2, 4096);
        small_disk = mount("none", to("").c_str(), "tmpfs", 0, ("size=" + std::to_string(size)).c_str()) == 0;
    }
}

int transfer_survival::first_order(round_plan& plan) {
    cp_transfer& wanted = plan.wish;
    wanted.source.agent = "FIRST";
    wanted.source.path = source_of(plan.folder ? "" : "file");
    wanted.destination.agent = "SECOND";
    wanted.destination.path = to("");
    wanted.subfolders = plan.folder;
    return order_over_line(wanted);
}

void transfer_survival::restart_agent(installation& host, const char* name) {
    descriptors.erase(host.agent.pid);
    host.agent.kill_now();
    EXPECT_TRUE(wait(20000, [&] { return cp_find_agent(server.get(), name) == nullptr; }));
    host.start();
    EXPECT_TRUE(wait_logon(name, 30000));
}

void transfer_survival::replace_source(round_plan& plan) {
    source_file& file = plan.files[plan.below(plan.files.size())];
    // Without a digest the size is what tells a file that is no longer the same.
    size_t size = file.content.size();
    size = size > 1048576 ? size : size + 1 + plan.below(1000);
    file.replaced_by = plan.content(size);
    write_file(source_of("") + "../fresh", file.replaced_by);
    rename((source_of("") + "../fresh").c_str(), source_of(file.name).c_str());
}

void transfer_survival::happen(round_plan& plan, int run, incident what) {
    const auto end_workers = [this](const installation& host) {
        for (const pid_t worker : workers(host)) {
            kill(worker, SIGKILL);
        }
    };
    std::string ignored;
    switch (what) {
        case incident::source_worker_killed:
            return end_workers(first);
        case incident::destination_worker_killed:
            return end_workers(second);
        case incident::line_cut:
            return line.cut();
        case incident::cancelled:
            cp_cancel_transfer(server.get(), run, ignored);
            return;
        case incident::source_agent_killed:
            return restart_agent(first, "FIRST");
        case incident::destination_agent_killed:
            return restart_agent(second, "SECOND");
        case incident::server_away:
            close_server();
            open_server();
            return;
        case incident::source_line_to_server_cut:
            return cp_drop_line(server.get(), "FIRST");
        case incident::destination_line_to_server_cut:
            return cp_drop_line(server.get(), "SECOND");
        case incident::source_replaced:
            replace_source(plan);
            if (plan.chance(2)) {
                line.cut();
            }
            return;
        case incident::source_removed:
            unlink(source_of(plan.files.back().name).c_str());
            return;
        case incident::destination_full:
        case incident::nothing:
            return;
    }
}

// Lets a run go until the moment that was drawn, and `what` happen there.
void transfer_survival::meet(round_plan& plan, int run, incident what) {
    const auto remember = [this] {
        for (const installation* host : {&first, &second}) {
            for (const pid_t worker : workers(*host)) {
                seen_workers.insert(worker);
            }
        }
    };
    if (what != incident::nothing) {
        EXPECT_TRUE(watch(30000, [&] { return line.stands_still() || is_over(run); }));
        remember();
        if (plan.chance(2)) {
            line.go_on();  // it happens while things move
            watch(static_cast<int>(plan.below(4)), [] { return false; });
        }
        happen(plan, run, what);
    }
    line.go_on();
    EXPECT_TRUE(wait_logon("FIRST") && wait_logon("SECOND"));
    EXPECT_TRUE(wait_over(run, 40000)) << "run " << run << " does not end";
    remember();
}

// At no moment a final name holds anything but a whole file.
void transfer_survival::look_at_names(const round_plan& plan) {
    for (const source_file& file : plan.files) {
        const bool overwritten = plan.something_there && &file == &plan.files[0];
        if (!overwritten && access(to(file.name).c_str(), F_OK) == 0) {
            const std::string found = read_file(to(file.name));
            EXPECT_TRUE(fits(file, found))
                << file.name << " has " << found.size() << " bytes of " << file.content.size();
        }
    }
}

// What was told to be complete stays as it is, and comes no second time.
void transfer_survival::look_at_confirmed(int run) {
    for (const auto& [name, before] : confirmed) {
        struct stat now {};
        EXPECT_EQ(stat(name.c_str(), &now), 0) << name;
        EXPECT_EQ(now.st_ino, before.st_ino) << name << " was written again";
        EXPECT_EQ(now.st_mtim.tv_nsec, before.st_mtim.tv_nsec) << name << " was written again";
    }
    constexpr int file_transferred = 11133, earlier_begin = 63001, earlier_end = 63002;
    bool of_this_run = true;
    for (const cp_report_line& told_line : cp_store_lines(cp_server_store(server.get()), run)) {
        of_this_run = told_line.number == earlier_end || (of_this_run && told_line.number != earlier_begin);
        if (told_line.number == file_transferred && of_this_run) {
            const std::string name = told_line.insert.substr(0, told_line.insert.find('|'));
            struct stat now {};
            EXPECT_EQ(stat(name.c_str(), &now), 0) << name;
            EXPECT_TRUE(confirmed.emplace(name, now).second) << name << " was sent twice:\n"
                                                             << report_of(run);
        }
    }
}

void transfer_survival::look_at_the_end(const round_plan& plan, int run, bool removed) {
    const bool finished = transfer(run).state == cp_transfer_state::finished;
    const bool may_differ = plan.wish.overwrite == 'N' && plan.first == incident::source_replaced;
    EXPECT_TRUE(finished || removed || plan.wish.erase || may_differ) << "run " << run << " did not finish";
    for (const source_file& file : plan.files) {
        const bool right = access(to(file.name).c_str(), F_OK) == 0 && fits(file, read_file(to(file.name)));
        if (!right && removed &&
            report_of(run).find("'" + source_of(file.name) + "' was not transferred") != std::string::npos) {
            continue;
        }
        EXPECT_TRUE(right) << file.name;
        EXPECT_TRUE(!finished || !plan.wish.erase || access(source_of(file.name).c_str(), F_OK) != 0)
            << file.name;
    }
    for (const auto& entry : fs::recursive_directory_iterator(place + "/to")) {
        EXPECT_TRUE(!finished || entry.path().extension() != ".tmp") << entry.path();
    }
}

// Workers end some seconds after their transfers: this is looked at once in many rounds.
void transfer_survival::look_for_leftovers() {
    const auto none_left = [this] {
        return std::none_of(seen_workers.begin(), seen_workers.end(), is_worker) && workers(first).empty() &&
               workers(second).empty() && line.connections() == 0;
    };
    EXPECT_TRUE(watch(15000, none_left)) << "a worker or a connection stays";
    for (const installation* host : {&first, &second}) {
        const auto usual = descriptors.find(host->agent.pid);
        if (usual != descriptors.end()) {
            EXPECT_TRUE(watch(5000, [&] { return open_descriptors(host->agent.pid) <= usual->second; }))
                << open_descriptors(host->agent.pid) << " descriptors for " << usual->second;
        }
    }
    for (const auto& entry : fs::directory_iterator(first.path("out"))) {
        EXPECT_EQ(entry.path().extension(), ".sts") << entry.path();
        unlink(entry.path().c_str());
    }
    EXPECT_TRUE(fs::is_empty(second.path("out")));
    seen_workers.clear();
    settle();
}

// What each agent has open while nothing runs.
void transfer_survival::settle() {
    wait(500, [] { return false; });
    for (const installation* host : {&first, &second}) {
        descriptors.emplace(host->agent.pid, open_descriptors(host->agent.pid));
    }
}

void transfer_survival::play(unsigned long seed) {
    round_plan plan(seed);
    confirmed.clear();
    place = files / std::to_string(seed);
    lay_out(plan);
    constexpr int most_runs = 8, file_exists = 11404;
    incident what = plan.first;
    line.stand_still_after(what == incident::nothing ? -1 : static_cast<long>(plan.below(plan.total + 6000)));
    int run = first_order(plan);
    story_of_round = "run " + std::to_string(run) + ": " + name_of(what);
    for (int tries = 1; run != 0; ++tries) {
        meet(plan, run, what);
        look_at_names(plan);
        look_at_confirmed(run);
        const cp_transfer& ended = transfer(run);
        story_of_round += ", " + std::string(cp_transfer_state_name(ended.state)) + " " +
                          std::to_string(ended.message_number);
        EXPECT_TRUE(what != incident::cancelled || ended.state == cp_transfer_state::cancelled ||
                    ended.state == cp_transfer_state::finished);
        const bool quiet = what == incident::nothing && plan.first != incident::nothing;
        // Other content that an earlier run has completed without a word of it is never replaced under 'N'.
        const bool stands_there = quiet && plan.wish.overwrite == 'N' &&
                                  plan.first == incident::source_replaced &&
                                  ended.message_number == file_exists;
        if (HasFailure() || stands_there || ended.state == cp_transfer_state::finished ||
            tries == most_runs || (quiet && (plan.first == incident::source_removed || plan.wish.erase))) {
            break;
        }
        if (small_disk) {
            mount("none", to("").c_str(), "tmpfs", MS_REMOUNT, "size=64m");
        }
        what = tries < 3 ? plan.draw_next() : incident::nothing;
        line.stand_still_after(what == incident::nothing ? -1
                                                         : static_cast<long>(plan.below(plan.total + 6000)));
        run = restart_over_line(run);
        story_of_round += "; run " + std::to_string(run) + ": " + name_of(what);
    }
    if (run != 0 && !HasFailure()) {
        look_at_the_end(plan, run, plan.first == incident::source_removed);
    }
    if (small_disk) {
        umount2(to("").c_str(), MNT_DETACH);  // a worker may stand in it yet
    }
    std::error_code still_written;  // after a failure of the test
    fs::remove_all(place, still_written);
}

TEST_F(transfer_survival, loses_and_spoils_nothing_whatever_happens) {
    constexpr int usual_rounds = 100, rounds_between_looks = 25;
    constexpr auto usual_time = std::chrono::seconds(90);
    const int rounds = variable("QX_TRANSFER_ROUNDS", 0);
    const unsigned long seed = static_cast<unsigned long>(
        variable("QX_TRANSFER_SEED", static_cast<int>(std::random_device{}() & 0xffffff)));
    std::cout << "seed " << seed << std::endl;
    start_agents();
    settle();
    const auto start = std::chrono::steady_clock::now();
    int done = 0;
    for (; done < (rounds > 0 ? rounds : usual_rounds) && !HasFailure(); ++done) {
        if (rounds == 0 && std::chrono::steady_clock::now() - start > usual_time) {
            break;
        }
        const unsigned long own_seed = seed + static_cast<unsigned long>(done);
        SCOPED_TRACE("QX_TRANSFER_SEED=" + std::to_string(own_seed));
        play(own_seed);
        if (done % rounds_between_looks == rounds_between_looks - 1 && !HasFailure()) {
            look_for_leftovers();
        }
        if (HasFailure()) {
            ADD_FAILURE() << story_of_round << "\n" << told();
        } else if (rounds > 0) {
            std::cout << own_seed << ": " << story_of_round << "\n";
        }
    }
    std::cout << done << " rounds" << std::endl;
    if (!HasFailure()) {
        look_for_leftovers();
    }
    EXPECT_TRUE(first.stop());
    EXPECT_TRUE(second.stop());
}

}  // namespace
