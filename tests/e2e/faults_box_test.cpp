// What may go wrong on the box itself: its services, descriptors, memory, disk and clock.
#include <sys/resource.h>

#include "faults.h"

TEST_F(Faults, OfLocalServicesHarmNobodyElse) {
    using story = void (*)(int fd);
    constexpr story STORIES[] = {
        [](int fd) { reset_when_closed(fd); },
        [](int fd) { shutdown(fd, SHUT_RDWR); },
        [](int fd) { closed_by_peer(fd, std::chrono::hours{1}); },      // never answers
        [](int) { std::this_thread::sleep_for(test_duration{1000}); },  // never reads
        [](int fd) {
            write_all(fd, noise(MUCH, 1));
            reset_when_closed(fd);
            shutdown(fd, SHUT_RDWR);
        },
        [](int fd) {
            while (write_all(fd, noise(MUCH, 2))) {
            }
        },
    };
    const usage healthy = healthy_usage();
    std::vector<std::unique_ptr<local_service>> services;
    scene at;
    ASSERT_TRUE(at.comes_up());
    const loopback_listener refuses(-1);
    std::vector<uint16_t> ports{refuses.port};
    for (const story each : STORIES) {
        services.push_back(std::make_unique<local_service>(each));
        ports.push_back(services.back()->port());
    }
    std::string closes;
    for (int again = 0; again < 20; ++again) {
        for (const uint16_t port : ports) {
            const std::string request = request_text(port);
            const std::string body = frame_bytes(DATA, ++at.stream, noise(PAYLOAD_MAX, 5));
            ASSERT_TRUE(at.sends_data(frame_bytes(DATA, at.stream, request)));
            // Behind a request to a dead port as many bytes are thrown away: oddity 21.
            ASSERT_TRUE(at.sends_data(port == refuses.port ? request : body + body));
            closes += frame_bytes(CLOSE_STREAM, at.stream);
        }
    }
    EXPECT_TRUE(at.carries());
    ASSERT_TRUE(at.sends_data(closes));
    services.clear();
    expect_well(at, healthy);
}

TEST_F(Faults, OfDescriptorsEndTheProcess) {
    scene at;
    ASSERT_TRUE(at.comes_up());
    const rlimit few{usage_of(at.device).descriptors + 8, 1024};
    ASSERT_EQ(prlimit(at.first_pid, RLIMIT_NOFILE, &few, nullptr), 0);
    for (uint32_t id = 1; id <= few.rlim_cur && at.device.gwad.running(); ++id) {
        at.sends_data(request_frame(id, at.service.port()));
    }
    EXPECT_EQ(at.device.gwad.wait(), 1);
    EXPECT_TRUE(at.device.logs("open too many files"));
}

TEST_F(Faults, OfMemoryEndTheProcess) {
    if (under_sanitizer) {
        GTEST_SKIP() << "the sanitizer's own memory runs out first";
    }
    scene at;
    ASSERT_TRUE(at.comes_up() && at.carries());
    const rlimit none{1, RLIM_INFINITY};
    ASSERT_EQ(prlimit(at.first_pid, RLIMIT_AS, &none, nullptr), 0);
    local_service never_reads([](int fd) { closed_by_peer(fd, std::chrono::hours{1}); });
    ASSERT_TRUE(at.sends_data(request_frame(9, never_reads.port())));
    const std::string body = frame_bytes(DATA, 9, noise(PAYLOAD_MAX, 5));
    while (at.device.gwad.running() && write_all(at.data.get(), body)) {
    }
    EXPECT_EQ(at.device.gwad.wait(), 1);
    EXPECT_TRUE(at.device.logs("malloc failed"));
}

// Nothing is written any more, and all goes on; what is written later is whole.
TEST_F(Faults, OfAFullDiskCostWhatIsWrittenMeanwhile) {
    const temp_dir disk;
    ASSERT_EQ(child({"/bin/mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", disk.path}).wait(),
              0);
    setenv("TMPDIR", disk.path.c_str(), 1);
    // A sanitizer keeps a file of its own where temporary ones are: not on this disk.
    std::optional<scene> at(std::in_place, "localhost", std::vector<std::string>{"TMPDIR=/tmp"});
    unsetenv("TMPDIR");
    ASSERT_TRUE(at->comes_up());
    const std::string id = "0123456789abcdefghijklmnopqrstuv", filler = disk.path + "/filler",
                      log = at->device.home.path + "/log",
                      kept = at->device.home.path + "/tmp/session.id";
    file_write(filler, std::string(1 << 20, 'f'));
    EXPECT_TRUE(at->sends(frame_bytes(SESSION_ID, 0, id)));
    EXPECT_TRUE(at->carries() && at->carries());
    EXPECT_TRUE(file_read(kept).empty());
    const size_t full = file_read(log).size();
    std::filesystem::remove(filler);
    EXPECT_TRUE(at->sends(frame_bytes(SESSION_ID, 0, id)));
    EXPECT_TRUE(eventually([&] { return file_read(kept) == id; }));
    EXPECT_TRUE(at->carries() && !at->is_new());
    EXPECT_GT(file_read(log).size(), full);
    std::istringstream lines(file_read(log));
    int broken = 0;
    for (std::string line; std::getline(lines, line);) {
        broken += line.find("<20", 1) != line.npos && line.find("> [gwad]", 25) != line.npos;
    }
    EXPECT_EQ(broken, 0);
    at.reset();
    child({"/bin/umount", disk.path}).wait();
}

// Days forward and years back: nobody is cut off, nothing ends, and no work is made up for.
TEST_F(Faults, OfTheClockChangeNothing) {
    const temp_dir folder;
    const std::string clock = folder.path + "/clock";
    file_write(clock, "+0");
    scene at("localhost",
             {"LD_PRELOAD=/usr/$LIB/faketime/libfaketimeMT.so.1", "FAKETIME_NO_CACHE=1",
              "FAKETIME_DONT_FAKE_MONOTONIC=1", "FAKETIME_TIMESTAMP_FILE=" + clock,
              "ASAN_OPTIONS=verify_asan_link_order=0"});
    ASSERT_TRUE(at.comes_up() && at.carries());
    ASSERT_TRUE(at.sends_data(request_frame(100, at.service.port())) && at.receives(100));
    const usage before = usage_of(at.device);
    for (const char* jump : {"+3d", "-9000d", "+9000d", "-1h"}) {
        file_write(clock, jump);
        std::this_thread::sleep_for(test_duration{1500});
        EXPECT_TRUE(at.carries() && !at.is_new()) << jump;
    }
    EXPECT_TRUE(at.device.logs("<2051-"));
    EXPECT_EQ(text_count(at.device.log(), "idle too long"), 0);
    expect_well(at, before);
}
