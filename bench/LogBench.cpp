// Log lines: bench_log inner|threads|rotation FOLDER LABEL [quick], bench_log calls FOLDER SUBJECT, bench_log subjects.
#include "bench/Harness.h"
#include "bench/LogSubject.h"

#include <algorithm>
#include <barrier>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

constexpr std::size_t kLineLength = 110; // with the line feed
constexpr const char* kStampShape = "99/99/99 99:99:99.999";
constexpr std::size_t kShortestLine = 100, kLongestLine = 220;
constexpr std::size_t kRotatedFileSize = std::size_t{1} << 20;

struct Settings
{
    fs::path folder;
    std::string label; // of the file system, part of the scenarios' names
    unsigned scale;    // divides counts and repetitions in a quick run
};

// A subject with its own folder and texts. Every repetition starts with a new file.
class Contestant
{
public:
    Contestant(LogSubject& subject, const fs::path& folder) : m_subject(subject), m_folder(folder / subject.Name())
    {
        const std::size_t prefix = MeasurePrefix();
        const auto text = [prefix](std::size_t lineLength)
        {
            std::string message = kSource;
            message.resize(lineLength - prefix - 1, 'x');
            return message;
        };
        const std::size_t sourceLength = AddsSource() ? std::strlen(kSource) : 0;
        m_work.message = text(kLineLength).substr(sourceLength);
        for (std::size_t i = 0; i < Workload::kMessages; ++i)
        {
            const std::size_t spread = i * 2654435761u % (kLongestLine - kShortestLine);
            m_work.varying[i] = text(kShortestLine + spread).substr(sourceLength);
        }
        CheckLine();
    }

    LogSubject& Subject() { return m_subject; }
    Workload& Work() { return m_work; }
    const fs::path& Folder() const { return m_folder; }

    void Start(std::size_t maxFileSize = 0)
    {
        static int gNumber = 0;
        m_current = m_folder / std::to_string(++gNumber); // a new name each time: some subjects keep the file of an old one
        fs::create_directories(m_current);
        m_subject.Open((m_current / "bench.log").string(), maxFileSize);
        m_subject.Run(Operation::LINE, m_work, 1); // opening is not what is measured
    }
    void Stop()
    {
        m_subject.Close();
        Remove();
    }
    void Remove() const { fs::remove_all(m_current); }

    // Lines in all files of the current log.
    std::size_t CountLines() const
    {
        std::size_t lines = 0;
        for (const auto& file : fs::directory_iterator(m_current))
        {
            std::ifstream stream(file.path());
            for (std::string line; std::getline(stream, line);)
            {
                lines += line.find("xxxx") != std::string::npos; // glog heads its files with lines of its own
            }
        }
        return lines;
    }

private:
    // Source and message are two arguments of the library and of the limit, one text for all others.
    bool AddsSource() const
    {
        const std::string name = m_subject.Name();
        return name == "library" || name == "limit";
    }
    // What the subject makes of the message; the last line, as glog heads its files with lines of its own.
    std::string WriteOneLine()
    {
        Start();
        m_subject.Close();
        std::string last;
        for (const auto& file : fs::directory_iterator(m_current))
        {
            std::ifstream stream(file.path());
            for (std::string line; std::getline(stream, line);)
            {
                if (line.ends_with(m_work.message))
                {
                    last = line;
                }
            }
        }
        Remove();
        return last;
    }
    std::size_t MeasurePrefix()
    {
        m_work.message = std::string(20, 'x');
        const std::size_t sourceLength = AddsSource() ? std::strlen(kSource) : 0;
        return WriteOneLine().size() - m_work.message.size() - sourceLength;
    }
    // Peers must write the same bytes a line, and the same fields as far as they let one choose: a letter that a pattern
    // does not know costs less than the field that it was to be.
    void CheckLine()
    {
        const std::string line = WriteOneLine();
        std::string stamp = line.substr(0, std::strlen(kStampShape));
        std::replace_if(
            stamp.begin(), stamp.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
        if (line.size() + 1 != kLineLength || (stamp != kStampShape && !m_subject.HasFormatOfItsOwn()))
        {
            std::fprintf(stderr, "bench_log: not the fields or the length that all write: %s: %s\n", m_subject.Name(),
                         line.c_str());
            std::exit(EXIT_FAILURE);
        }
    }

    LogSubject& m_subject;
    fs::path m_folder;
    fs::path m_current;
    Workload m_work;
};

std::vector<Contestant> MakeContestants(const Settings& settings)
{
    std::vector<Contestant> contestants;
    for (const auto& subject : LogSubjects())
    {
        contestants.emplace_back(*subject, settings.folder);
    }
    return contestants;
}

void MeasureOperation(const std::string& scenario, Operation operation, std::vector<Contestant>& contestants, unsigned count,
                      unsigned repetitions)
{
    std::vector<Case> cases;
    for (Contestant& contestant : contestants)
    {
        if (contestant.Subject().Can(operation))
        {
            cases.push_back({contestant.Subject().Name(), [&contestant] { contestant.Start(); },
                             [&contestant, operation](unsigned n)
                             { contestant.Subject().Run(operation, contestant.Work(), n); },
                             [&contestant]
                             {
                                 contestant.Stop();
                             }});
        }
    }
    Measure(scenario, cases, count, repetitions);
}

void Inner(const Settings& settings)
{
    std::vector<Contestant> contestants = MakeContestants(settings);
    const unsigned repetitions = 21 / settings.scale;
    const auto measure = [&](const std::string& scenario, Operation operation, unsigned count)
    {
        MeasureOperation(scenario + ", " + settings.label, operation, contestants, count / settings.scale, repetitions);
    };
    measure("line", Operation::LINE, 20200);
    measure("line, varying length", Operation::VARYING, 20200);
    measure("formatted line", Operation::FORMATTED, 20200);
    if (settings.label != "memory")
    {
        return; // nothing below depends on the file system
    }
    measure("filtered call", Operation::FILTERED, 200000);
    for (const std::size_t size : {64u, 1024u, 65536u})
    {
        for (Contestant& contestant : contestants)
        {
            contestant.Work().bytes.resize(size);
            for (std::size_t i = 0; i < size; ++i)
            {
                contestant.Work().bytes[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
            }
        }
        measure("hex dump, " + std::to_string(size) + " bytes", Operation::HEX, size < 65536 ? 2020 : 101);
    }
}

// Threads that wait for the start, so that their creation is not measured.
class Crew
{
public:
    Crew(unsigned threads, const std::function<void(unsigned thread)>& work) : m_start(threads + 1)
    {
        for (unsigned thread = 0; thread < threads; ++thread)
        {
            m_threads.emplace_back(
                [this, thread, work]
                {
                    m_start.arrive_and_wait();
                    work(thread);
                });
        }
    }
    void Run()
    {
        m_start.arrive_and_wait();
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
    }

private:
    std::barrier<> m_start;
    std::vector<std::thread> m_threads;
};

void MeasureThreads(std::vector<Contestant>& contestants, unsigned threads, const Settings& settings)
{
    const unsigned count = 40400 / settings.scale;
    std::unique_ptr<Crew> crew;
    std::vector<Case> cases;
    for (Contestant& contestant : contestants)
    {
        cases.push_back({contestant.Subject().Name(),
                         [&crew, &contestant, threads, count]
                         {
                             contestant.Start();
                             crew = std::make_unique<Crew>(
                                 threads, [&contestant, threads, count](unsigned)
                                 { contestant.Subject().Run(Operation::LINE, contestant.Work(), count / threads); });
                         },
                         [&crew](unsigned) { crew->Run(); },
                         [&contestant]
                         {
                             contestant.Stop();
                         }});
    }
    Measure(std::to_string(threads) + " threads, " + settings.label, cases, count, 15 / settings.scale);
}

void MeasureLatency(std::vector<Contestant>& contestants, unsigned threads, const Settings& settings)
{
    constexpr std::size_t kCalls = 10100;
    std::vector<std::vector<std::uint32_t>> all(contestants.size());
    for (unsigned repetition = 0; repetition < 10 / settings.scale; ++repetition)
    {
        for (std::size_t i = 0; i < contestants.size(); ++i)
        {
            Contestant& contestant = contestants[i];
            std::vector<std::vector<std::uint32_t>> ticks(threads, std::vector<std::uint32_t>(kCalls));
            contestant.Start();
            Crew(threads, [&](unsigned thread) { contestant.Subject().RunTimed(contestant.Work(), ticks[thread]); }).Run();
            contestant.Stop();
            for (const auto& some : ticks)
            {
                all[i].insert(all[i].end(), some.begin(), some.end());
            }
        }
    }
    const std::string scenario = "latency, " + std::to_string(threads) + (threads == 1 ? " thread, " : " threads, ");
    for (std::size_t i = 0; i < contestants.size(); ++i)
    {
        PrintLatencies(scenario + settings.label, contestants[i].Subject().Name(), all[i]);
    }
}

void Threads(const Settings& settings)
{
    std::vector<Contestant> contestants = MakeContestants(settings);
    for (const unsigned threads : {2u, 4u})
    {
        MeasureThreads(contestants, threads, settings);
    }
    for (const unsigned threads : {1u, 2u, 4u})
    {
        MeasureLatency(contestants, threads, settings);
    }
}

// 100 MB in files of 1 MiB; afterwards every line must be there.
void Rotation(const Settings& settings)
{
    std::vector<Contestant> contestants = MakeContestants(settings);
    const std::string scenario = "rotation, " + settings.label;
    const auto count = static_cast<unsigned>(100000000 / kLineLength) / (settings.scale > 1 ? 5 : 1);
    std::vector<Case> cases;
    for (Contestant& contestant : contestants)
    {
        if (!contestant.Subject().Can(Operation::ROTATION))
        {
            continue;
        }
        cases.push_back({contestant.Subject().Name(), [&contestant] { contestant.Start(kRotatedFileSize); },
                         [&contestant](unsigned n) { contestant.Subject().Run(Operation::ROTATION, contestant.Work(), n); },
                         [&contestant, &scenario, count]
                         {
                             contestant.Subject().Close();
                             PrintResult(scenario, contestant.Subject().Name(), "lines lost",
                                         count + 1.0 - static_cast<double>(contestant.CountLines()));
                             contestant.Remove();
                         }});
    }
    Measure(scenario, cases, count, settings.scale > 1 ? 1 : 3);
}

// Writes lines between two calls of getppid, which nothing else calls: what lies between them in a trace are the lines'.
void Calls(const Settings& settings, const std::string& name)
{
    for (const auto& subject : LogSubjects())
    {
        if (subject->Name() == name)
        {
            Contestant contestant(*subject, settings.folder);
            contestant.Start();
            static_cast<void>(getppid());
            subject->Run(Operation::LINE, contestant.Work(), 100 * kLinesPerFlush);
            static_cast<void>(getppid());
            contestant.Stop();
        }
    }
}

} // namespace

LogSubjectList& LogSubjects()
{
    static LogSubjectList gSubjects;
    return gSubjects;
}

int main(int argumentCount, char** arguments)
{
    const std::string mode = argumentCount > 1 ? arguments[1] : "";
    if (mode == "subjects")
    {
        for (const auto& subject : LogSubjects())
        {
            std::puts(subject->Name());
        }
        return EXIT_SUCCESS;
    }
    if (argumentCount < 4)
    {
        std::fputs("usage: bench_log inner|threads|rotation FOLDER LABEL [quick] | calls FOLDER SUBJECT | subjects\n",
                   stderr);
        return EXIT_FAILURE;
    }
    const Settings settings = {arguments[2], arguments[3], argumentCount > 4 ? 3u : 1u};
    fs::remove_all(settings.folder); // of a run that was broken off
    ParkSecondThread();
    if (mode == "inner")
    {
        Inner(settings);
    }
    else if (mode == "threads")
    {
        Threads(settings);
    }
    else if (mode == "rotation")
    {
        Rotation(settings);
    }
    else
    {
        Calls(settings, settings.label);
    }
    fs::remove_all(settings.folder);
    std::fflush(stdout);
    _exit(EXIT_SUCCESS); // the parked thread must not hinder the end, and no peer's clean-up is of interest
}
