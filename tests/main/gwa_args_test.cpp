#include "main/gwa_args.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "gwad_config.h"
#include "support/child.h"

namespace {

using texts = std::vector<std::string>;

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
    const std::string usage =
        "gwad remote access client\n"
        "usage: gwad options\n"
        "  -r --remote_name=domain   the remote server name\n"
        "  -R --remote_addr=IP       the remote server IP address\n"
        "  -p --port=port            the remote server listening port, default is 9999\n"
        "  -L --local=IP             the local server name or address, defualt is localhost\n"
        "  -l --log=file             the file to save logs, defualt is stderr\n"
        "  -i --interface=name       the interface which local service bind on, default is br-lan\n"
        "  -I --ID=DeviceID          the device ID string\n"
        "  -V --verbose=level        the verbose level to display debug message\n"
        "  -b --background           run as daemon in background\n"
        "  -v --version              show the programm version\n"
        "  -h --help                 show this help message\n"
        "  -H --home                 the home directory, default is /\n";
    const std::string home_line = "the home dir is " + home.path + "\n";
    const struct {
        texts arguments;
        int status;
        std::string output, errors;
    } cases[] = {
        {{"-h"}, 0, usage, ""},
        {{"--help", "-x"}, 0, usage, ""},
        {{"-x"}, 1, "?? getopt returned character '?' code 0x3f, 2\n", ""},
        {{"-b", "-p"}, 1, "?? getopt returned character '?' code 0x3f, 3\n", ""},
        {{"-b", "x"}, 1, "@err: Non-option arguments on the command line (2, 3)!\n" + usage, ""},
        {{"-H", "/no"}, 1, "", "home dir is error /no No such file or directory\n"},
        {{"-H", home.path, "-l", "/no/log"}, 1, home_line, "init log failed\n"},
        {{"-H", home.path, "-l", log, "-V8"}, 1, home_line, "log level is invalid 8\n"},
        {{"-H", home.path, "-l", log, "-V-2"}, 1, home_line, "log level is invalid -2\n"},
        {{"-H", home.path, "-l", log, "--verbose=4294967296"},  // 0 in its lower half
         1,
         home_line,
         "log level is invalid 4294967296\n"},
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
    for (const char* level : {"-1", "word"}) {
        bad_port.insert(bad_port.end(), {"-V", level});
        EXPECT_EQ(child([&] { parse(bad_port); }).wait(), 1);
        const std::string text = file_read(log);
        const bool quiet = level == std::string("-1");
        EXPECT_EQ(text.find("<0> <<<<<<<<  gwad start, git commit [") == text.npos, quiet);
        EXPECT_EQ(text.find("<0> exit from func args_parse") == text.npos, quiet);
        EXPECT_EQ(text.find("init login failed"), text.npos) << "a word is level 0";
    }
}

TEST_F(Arguments, ReplaceThePidFileAndWhoIsNamedThere) {
    child victim([] { pause(); });
    file_write(pid_file, std::to_string(victim.pid()) + "\n");
    child program([&] { parse(bad_port); });
    EXPECT_EQ(program.wait(), 1);
    EXPECT_EQ(victim.wait(), child::SIGNALLED + SIGKILL);
    EXPECT_EQ(file_read(pid_file), std::to_string(program.pid()));
}

TEST_F(Arguments, SurviveAnyPidFile) {
    const std::string contents[] = {"", "word", "0", "own", std::string(1000, '9')};
    for (const std::string& content : contents) {
        child program([&] {
            file_write(pid_file, content == "own" ? std::to_string(getpid()) : content);
            parse(bad_port);
        });
        EXPECT_EQ(program.wait(), 1) << content;
        EXPECT_EQ(file_read(pid_file), std::to_string(program.pid()));
    }
    unlink(pid_file.c_str());
    ASSERT_EQ(mkfifo(pid_file.c_str(), 0600), 0);  // which nobody reads or writes
    child program([&] { parse(bad_port); });
    EXPECT_EQ(program.wait(), 1);
    EXPECT_EQ(program.errors(), "open pid file " + pid_file + " failed\n");
}

TEST_F(Arguments, GoToTheBackgroundWithOneMessage) {
    texts arguments = bad_port;
    arguments.emplace_back("-b");
    child program([&] { parse(arguments); });
    EXPECT_TRUE(eventually([&] { return file_read(log).find("exit from") != std::string::npos; }));
    EXPECT_EQ(program.wait(), 0);
    EXPECT_EQ(program.output(), "the home dir is " + home.path + "\n");
    EXPECT_NE(file_read(pid_file), std::to_string(program.pid())) << "written before the fork";
}
