/* Prints and consumes the records of a ring buffer that client_open of srvfs_client.h opened. */
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "escaped_text.h"
#include "ring_reader.h"

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

const char USAGE[] =
    "Usage: ringbuf_cat [--follow] [--count N] NAME\n"
    "\n"
    "Prints each unread record of the ring buffer NAME on a line of its own and marks it as read.\n"
    "A NUL at the end of a record is left out; control characters are shown as \\n or \\x1b.\n"
    "\n"
    "  --follow   wait for more records until interrupted\n"
    "  --count N  stop after N records\n"
    "  --help     show this text\n"
    "\n"
    "Exit code: 0 done, or interrupted while following; 1 failure; 2 wrong usage.\n";

struct Arguments
{
    bool follow = false;
    bool help = false;
    std::uint64_t count = UINT64_MAX;
    std::string name;
};

class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::uint64_t parseCount(const std::string& text)
{
    const bool digitsOnly = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const std::uint64_t count = digitsOnly && text.size() < 19 ? std::stoull(text) : 0;
    if (count == 0) {
        throw UsageError("--count takes a number of records, 1 or more, not \"" + text + "\"");
    }
    return count;
}

/** Long options only: their numbers stand above all letters. */
enum Option { FOLLOW = 256, COUNT, HELP };

const option OPTIONS[] = {{"follow", no_argument, nullptr, FOLLOW},
                          {"count", required_argument, nullptr, COUNT},
                          {"help", no_argument, nullptr, HELP},
                          {nullptr, 0, nullptr, 0}};

/** The word that getopt_long has just refused. */
std::string refusedWord(char** argv)
{
    const bool isLetter = optopt > 0 && optopt < FOLLOW;
    return isLetter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

Arguments parseArguments(int argc, char** argv)
{
    Arguments arguments;
    opterr = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread
    for (int found = 0; (found = ::getopt_long(argc, argv, ":", OPTIONS, nullptr)) != -1;) {
        switch (found) {
            case FOLLOW:
                arguments.follow = true;
                break;
            case COUNT:
                arguments.count = parseCount(optarg);
                break;
            case HELP:
                arguments.help = true;
                break;
            case ':':
                parseCount("");
                break;
            default:
                throw UsageError("there is no option \"" + refusedWord(argv) + "\"");
        }
    }
    if (!arguments.help && argc - optind != 1) {
        throw UsageError(argc == optind ? "the name of the ring buffer is missing" : "more than one name was given");
    }
    arguments.name = arguments.help ? "" : argv[optind];
    return arguments;
}

/** SIGINT and SIGTERM are let in between records only, so that no line is cut and no printed record stays unread. */
class Interruption
{
public:
    Interruption()
    {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGINT);
        sigaddset(&m_signals, SIGTERM);
        hold();
        struct sigaction action
        {
        };
        action.sa_handler = [](int) { _exit(0); };
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
    void hold() const { pthread_sigmask(SIG_BLOCK, &m_signals, nullptr); }
    void letIn() const { pthread_sigmask(SIG_UNBLOCK, &m_signals, nullptr); }

private:
    sigset_t m_signals{};
};

void printLine(const std::string& record)
{
    const bool terminated = !record.empty() && record.back() == '\0';
    const std::string line =
        escapedText(std::string_view(record.data(), record.size() - (terminated ? 1U : 0U))) + '\n';
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t written = write(STDOUT_FILENO, rest.data(), rest.size());
        if (written == -1 && errno != EINTR) {
            throw std::runtime_error(std::string("cannot write to standard output: ") +
                                     std::generic_category().message(errno) +
                                     ". The record stays unread; mend the output and run this again.");
        }
        rest.remove_prefix(written == -1 ? 0 : static_cast<std::size_t>(written));
    }
}

void reportLoss(RingReader& reader)
{
    const std::uint64_t lost = reader.takeLostBytes();
    if (lost > 0) {
        std::cerr << "ringbuf_cat: " << lost << " bytes of records were overwritten before they could be read\n";
    }
}

void printRecords(const Arguments& arguments)
{
    RingReader reader(arguments.name);
    const Interruption interruption;
    std::string record;
    for (std::uint64_t printed = 0; printed < arguments.count;) {
        const bool found = reader.peek(record);
        reportLoss(reader);
        if (found) {
            printLine(record);
            reader.consume();
            ++printed;
        } else if (!arguments.follow) {
            return;
        }
        interruption.letIn();
        if (!found) {
            reader.wait();
        }
        interruption.hold();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        const Arguments arguments = parseArguments(argc, argv);
        if (arguments.help) {
            std::cout << USAGE;
            return 0;
        }
        printRecords(arguments);
        return 0;
    } catch (const UsageError& error) {
        std::cerr << "ringbuf_cat: " << error.what() << ". See ringbuf_cat --help.\n";
        return EXIT_USAGE;
    } catch (const std::exception& error) {
        std::cerr << "ringbuf_cat: " << error.what() << '\n';
        return EXIT_FAILED;
    }
}
