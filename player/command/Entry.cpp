// SPDX-License-Identifier: Apache-2.0
#include "player/command/Entry.h"

#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include "player/base/Errors.h"
#include "player/command/CommandLine.h"
#include "player/command/ExitStatus.h"
#include "player/command/LibraryChoice.h"
#include "player/command/Message.h"
#include "player/command/PlayCommand.h"
#include "player/media/VideoReader.h"
#include "tv/Log.h"

namespace korvane::player {
namespace {

/// Opens standard files that are closed, so that no output opened later takes the number of one
/// and receives what is meant for the screen.
void holdStandardFiles() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY);  // takes the lowest free number
        }
    }
}

CommandLine readCommandLine(int argc, char** argv, const std::string& version) {
    CommandLine line =
        parseCommandLine(argc, argv, "korvane-tv " + version + " (" + ffmpegVersions() + ")");
    line.play.version = version;
    line.run.version = version;
    return line;
}

int carryOut(const CommandLine& line, char** argv, OtherCommands others) {
    // The log keeps what was logged while the libraries were loaded until it is opened.
    if (!line.text.empty()) {
        tv::openLog(ANDROID_LOG_WARN);
        std::cout << line.text;
        return kExitOk;
    }
    if (line.command != Command::Play || !line.play.against.empty()) {
        return others(line, argv);
    }
    useLibrary(line.play.library, argv);
    tv::openLog(lowestLogPriority(line.play));
    return playFile(line.play);
}

int fail(const std::exception& error, int status) {
    // After a wrong command line the log is still closed; only warnings are wanted then.
    tv::openLog(ANDROID_LOG_WARN);
    say(error.what());
    return status;
}

}  // namespace

int runCommandLine(int argc, char** argv, const char* version, OtherCommands others) {
    holdStandardFiles();
    try {
        const int status = carryOut(readCommandLine(argc, argv, version), argv, others);
        if (!std::cout.flush()) {
            say("standard output could not be written whole; free some space and try again");
            return kExitFailed;
        }
        return status;
    } catch (const UsageError& error) {
        return fail(error, kExitUsage);
    } catch (const InputError& error) {
        return fail(error, kExitUsage);
    } catch (const ScenarioError& error) {
        return fail(error, kExitUsage);
    } catch (const std::exception& error) {
        return fail(error, kExitFailed);
    }
}

}  // namespace korvane::player

#if defined(__SANITIZE_THREAD__)
/// FFmpeg is not built with the thread sanitizer, which sees the memory that its decoder threads
/// hand round but not the atomics by which they do.
extern "C" const char* __tsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "called_from_lib:libavcodec.so\n"
           "called_from_lib:libavformat.so\n"
           "called_from_lib:libavutil.so\n";
}
#endif
