#include "main/gwa_args.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "gwad_config.h"
#include "runtime/gwa_process.h"
#include "support/child.h"

namespace {

using texts = std::vector<std::string>;
using namespace std::string_literals;

void parse(texts arguments) {
    arguments.insert(arguments.begin(), "gwad");
    args_parse(static_cast<int>(arguments.size()), argument_list(arguments).data());
}

class Arguments : public testing::Test {  // port 0 ends a start that got as far as the login
   protected:
    temp_dir home;
    std::string log = home.path + "/log";
    std::string pid_file = home.path + "/tmp/gwad.pid";
    texts bad_port{"-H", home.path, "-l", log, "-p", "0"};
    Arguments() { mkdir((home.path + "/tmp").c_str(), 0700); }
};

}  // namespace

TEST_F(Arguments, ThatOnlyPrintOrCannotBeTaken) {
    child help([] { parse({"-h"}); });
    EXPECT_EQ(help.wait(), 0);
    const std::string usage = help.output();
    EXPECT_TRUE(usage.starts_with("gwad remote access client\nusage: gwad options\n  -r --remote"));
    EXPECT_EQ(std::count(usage.begin(), usage.end(), '\n'), 14) << "a line an option, and two";
    EXPECT_NE(usage.find("listening port, default is 9999\n"), usage.npos);
    const std::string home_line = "the home dir is " + home.path + "\n";
    const std::string too_low = "log level is invalid -8589934592\n";  // 0 in its lower half
    const struct {
        texts arguments;
        int status;
        std::string output, errors;
    } cases[] = {
        {{"--help", "-x"}, 0, usage, ""},
        {{"-x"}, 1, "?? getopt returned character '?' code 0x3f, 2\n", ""},
        {{"-b", "-p"}, 1, "?? getopt returned character '?' code 0x3f, 3\n", ""},
        {{"-b", "x"}, 1, "@err: Non-option arguments on the command line (2, 3)!\n" + usage, ""},
        {{"-H", "/no"}, 1, "", "home dir is error /no No such file or directory\n"},
        {{"-H", home.path, "-l", "/no/log"}, 1, home_line, "init log failed\n"},
        {{"-H", home.path, "-l", log, "--verbose=8"}, 1, home_line, "log level is invalid 8\n"},
        {{"-H", home.path, "-l", log, "-V-8589934592"}, 1, home_line, too_low},
    };
    for (const auto& with : cases) {
        child program([&] { parse(with.arguments); });
        EXPECT_EQ(program.wait(), with.status);
        EXPECT_EQ(program.output(), with.output);
        EXPECT_EQ(program.errors(), with.errors);
    }
    child version([] { parse({"-v"}); });
    EXPECT_EQ(version.wait(), 0);
    EXPECT_EQ(version.output().find("version : " GWAD_VERSION ", git commit : "), 0U);
}

TEST_F(Arguments, SetTheLevelBeforeTheBanner) {
    for (const std::string level : {"-1", "word"}) {
        bad_port.insert(bad_port.end(), {"-V", level});
        EXPECT_EQ(child([&] { parse(bad_port); }).wait(), 1);
        const std::string text = file_read(log);
        EXPECT_EQ(text.find("<0> <<<<<<<<  gwad start, git commit [") == text.npos, level == "-1");
        EXPECT_EQ(text.find("init login failed"), text.npos) << "a word is level 0";
    }
}

TEST_F(Arguments, ReplaceThePidFileAndWhoIsNamedThere) {
    child victim([] { pause(); });
    const std::string named = std::to_string(victim.pid()) + "\n";
    for (const std::string& content : {named, ""s, "word"s, "0"s, "own"s, std::string(1000, '9')}) {
        child program([&] {
            umask(0);
            file_write(pid_file, content == "own" ? std::to_string(getpid()) : content);
            parse(bad_port);
        });
        EXPECT_EQ(program.wait(), 1) << content;
        EXPECT_EQ(file_read(pid_file), std::to_string(program.pid()));
    }
    EXPECT_EQ(victim.wait(), child::SIGNALLED + SIGKILL);
    unlink(pid_file.c_str());
    ASSERT_EQ(mkfifo(pid_file.c_str(), 0600), 0);  // which nobody reads or writes
    child program([&] { parse(bad_port); });
    EXPECT_EQ(program.wait(), 1);
    EXPECT_EQ(program.errors(), "open pid file " + pid_file + " failed\n");
}

TEST_F(Arguments, GoToTheBackgroundWithOneMessage) {
    bad_port.emplace_back("-b");
    child program([&] { umask(0), parse(bad_port); });
    EXPECT_TRUE(eventually([&] { return file_read(log).find("exit from") != std::string::npos; }));
    EXPECT_EQ(program.wait(), 0);
    EXPECT_EQ(program.output(), "the home dir is " + home.path + "\n");
    EXPECT_NE(file_read(pid_file), std::to_string(program.pid())) << "written before the fork";
    for (const auto& [path, mode] : {std::pair{log, 0640U}, {pid_file, 0644U}}) {
        struct stat file {};
        stat(path.c_str(), &file);
        EXPECT_EQ(file.st_mode & 07777, mode) << path;
    }
}

TEST_F(Arguments, LeaveNobodyElseTheRightToWrite) {
    for (const auto& [given, kept] : {std::pair{0U, 022U}, {077U, 077U}}) {
        child program([&] {
            umask(given);
            parse({"-H", home.path, "-l", log, "-r", "127.0.0.1", "-i", "lo", "-I", "box"});
            _exit(umask(0) == kept ? child::RETURNED : 1);
        });
        EXPECT_EQ(program.wait(), child::RETURNED);
    }
}

TEST_F(Arguments, LetSignalsClearTheRunFlagsAndDisturbNobody) {
    for (const int number : {SIGINT, SIGTERM}) {
        child program([&] {
            parse({"-H", home.path, "-l", log, "-r", "127.0.0.1", "-i", "lo", "-I", "box"});
            gwa_connection_run = 1;
            raise(SIGPIPE);
            raise(number);
            close(STDOUT_FILENO);  // the next word fails, in the middle of any code
            errno = 0;
            raise(number);
            _exit(errno + gwa_process_run + gwa_connection_run);
        });
        EXPECT_EQ(program.wait(), 0);
        EXPECT_TRUE(program.output().ends_with("\nrecv signal " + std::to_string(number) + "\n"));
    }
}
