// platform_fixture.h: a scratch directory, an open log at debug level and nothing else: what the tests of the
// bundled platform share. They need no daemon.
#pragma once

#include "support.h"
#include "trell_core.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

class PlatformTest : public testing::Test {
protected:
    void SetUp() override
    {
        char directory[] = "/tmp/quarn-platform-XXXXXX";
        scratch = mkdtemp(directory);
        setenv("STATE_DIRECTORY", scratch.c_str(), 1);
        setenv("QUARN_CONFIGURATION_DIRECTORY", scratch.c_str(), 1);
        setenv("QUARN_FW_ENV_CONFIG", (scratch / "fw_env.config").c_str(), 1);
        setenv("QUARN_LOG_LEVEL", "debug", 1);
        testing::internal::CaptureStderr();
        ASSERT_EQ(trell_core_logging_init("QUARN", &logging), 0);
    }

    void TearDown() override
    {
        trell_core_logging_deinit(logging);
        testing::internal::GetCapturedStderr();
        std::filesystem::remove_all(scratch);
    }

    // What was logged since the last call, line by line, with SCRATCH for the directory's path.
    std::vector<std::string> take_log()
    {
        std::istringstream text(testing::internal::GetCapturedStderr());
        testing::internal::CaptureStderr();
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            for (std::size_t at = line.find(scratch); at != std::string::npos; at = line.find(scratch))
                line.replace(at, scratch.string().size(), "SCRATCH");
            lines.push_back(line);
        }
        return lines;
    }

    // Runs `steps` in a child process, which a limit or a change of user does no harm to; its exit status.
    template <typename Steps> static int status_of_child(Steps steps)
    {
        const pid_t child = fork();
        if (child == 0)
            _exit([&]() noexcept { return steps(); }());
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    std::filesystem::path scratch;
    TrellLogging* logging = nullptr;
};

using Lines = std::vector<std::string>;
