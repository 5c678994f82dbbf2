#include "AdapterTest.h"
#include <ErrorHandlerDll/adapters/Glog.h>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

std::string Place(int line)
{
    return "GlogTest(" + std::to_string(line) + ") - ";
}

} // namespace

int main(int, char** argv)
{
    google::InitGoogleLogging(argv[0]);
    FLAGS_stderrthreshold = google::GLOG_FATAL;
    GlogSink sink;
    google::AddLogSink(&sink);

    OpenLog();
    LOG_TO_SINK_BUT_NOT_TO_LOGFILE(&sink, INFO) << "sink alone";
    LOG(ERROR) << "100 % " << 1;
    const int line = __LINE__;
    LOG(WARNING) << "";
    CheckLines("levels and sources", {"DEBUG_LOW|" + Place(line - 2) + "sink alone", "ERROR|" + Place(line - 1) + "100 % 1",
                                      "WARNING|" + Place(line + 1)});

    InitialiseLogging(true, 9, ZR_LOG_ALL_CATEGORIES, "/nowhere/adapter.log");
    LOG(WARNING) << "no file";

    OpenLog();
    const pid_t child = fork();
    if (child == 0)
    {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        LOG(FATAL) << "last words";
    }
    const int fatal = __LINE__ - 2;
    int status = 0;
    Check(waitpid(child, &status, 0) == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, "glog aborts");
    CheckLines("fatal", {"ERROR|" + Place(fatal) + "last words"});

    CheckThreads([](int thread, int number) { LOG(WARNING) << "thread " << thread << " line " << number; });
    google::RemoveLogSink(&sink);
    OpenLog();
    LOG(WARNING) << "removed";
    CheckLines("removed", {});
    return Result("glog");
}
