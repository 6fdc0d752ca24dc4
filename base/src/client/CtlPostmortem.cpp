#include "client/CtlPostmortem.h"

#include "client/CommandWords.h"
#include "client/CtlConsole.h"
#include "client/CtlOptions.h"
#include "client/PostmortemReport.h"
#include "client/ResponsePrinter.h"
#include "kernel/Properties.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace {

using Life = ProfileSnapshot::Life;

constexpr const char* ALL = "all";
constexpr const char* LAST = "last";

std::optional<unsigned> toNumber(const std::string& text) {
    unsigned number = 0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    return failed == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// Whether the job goes by this name: that of its batch job, or the number of one of its processes.
bool isCalled(const ProfileJob& job, const std::string& name) {
    const auto& members = job.getMembers();
    return name == job.getFirst().job || name == std::to_string(job.getFirst().masterPid) ||
           std::any_of(members.begin(), members.end(),
                       [&name](const ProfileSnapshot& each) { return name == std::to_string(each.pid); });
}

/// By its number in the list, or by a name. @return null when there is none
const ProfileJob* find(const std::vector<ProfileJob>& jobs, const std::string& name) {
    const std::size_t number = name == LAST ? 1 : toNumber(name).value_or(0);
    if (number >= 1 && number <= jobs.size())
        return &jobs[number - 1];
    const auto job =
        std::find_if(jobs.begin(), jobs.end(), [&name](const auto& each) { return isCalled(each, name); });
    return job == jobs.end() ? nullptr : &*job;
}

/// As in "2 of 4 died, 1 lives".
std::string stateOf(const ProfileJob& job) {
    const std::size_t live = job.count(Life::LIVES);
    const std::size_t unseen = job.count(Life::UNSEEN);
    std::string text =
        std::to_string(job.count(Life::DIED)) + " of " + std::to_string(job.getFirst().ranks) + " died";
    if (live != 0)
        text += ", " + std::to_string(live) + (live == 1 ? " lives" : " live");
    return unseen == 0 ? text : text + ", " + std::to_string(unseen) + " unseen";
}

} // namespace

int CtlPostmortem::run(const std::vector<std::string>& words) {
    const Wish wish = parse(words);
    const std::vector<ProfileJob> jobs = findJobs();
    if (wish.job.empty())
        return list(jobs);
    if (wish.isRemoval)
        return remove(jobs, wish);
    const ProfileJob* const job = find(jobs, wish.job);
    return job == nullptr ? fail("There is no dead job \"" + wish.job + "\" here") : show(*job, wish);
}

void CtlPostmortem::mention() {
    const std::vector<ProfileJob> jobs = ProfileJob::find(nullptr, ProfileReader::Extent::STANDING);
    const auto dead = std::count_if(jobs.begin(), jobs.end(), [](const auto& job) { return job.hasDead(); });
    if (dead != 0)
        _console.tell(std::to_string(dead) + (dead == 1 ? " dead job" : " dead jobs") +
                      " left a profile here: orvexctl postmortem");
}

CtlPostmortem::Wish CtlPostmortem::parse(const std::vector<std::string>& words) {
    Wish wish;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--remove") {
            wish.isRemoval = true;
        } else if (word == "--rank") {
            wish.rank = i + 1 < words.size() ? toNumber(words[++i]) : std::nullopt;
            if (!wish.rank)
                throw UsageError("--rank needs the number of a rank");
        } else if (!wish.job.empty() || word.empty() || word.starts_with('-')) {
            throw UsageError("postmortem takes one job, --rank N and --remove");
        } else {
            wish.job = word;
        }
    }
    if (wish.isRemoval && (wish.job.empty() || wish.rank))
        throw UsageError("postmortem --remove takes a job, or all");
    if (wish.rank && wish.job.empty())
        wish.job = LAST;
    return wish;
}

std::vector<ProfileJob> CtlPostmortem::findJobs() {
    std::vector<std::string> ignored;
    std::vector<ProfileJob> jobs = ProfileJob::find(&ignored);
    for (const std::string& reason : ignored)
        _console.tell("Ignored: " + reason);
    std::erase_if(jobs, [](const ProfileJob& job) { return !job.hasDead() && job.count(Life::UNSEEN) == 0; });
    return jobs;
}

int CtlPostmortem::list(const std::vector<ProfileJob>& jobs) {
    std::vector<Properties> rows;
    for (const ProfileJob& job : jobs) {
        Properties summary = PostmortemReport(job).getSummary();
        summary.set("number", rows.size() + 1);
        if (_isJson)
            _console.print(summary.toString() + "\n");
        Properties& row = rows.emplace_back();
        row.set("number", rows.size());
        row.set("process", job.getFirst().masterPid);
        row.set("host", job.getFirst().masterHost);
        row.set("ranks", stateOf(job));
        row.set("command", summary.getString("command"));
        row.set("last activity", PostmortemReport::describeTime(job.getLastActivity()));
    }
    if (_isJson)
        return ExitCode::SUCCESS;
    if (rows.empty()) {
        _console.print("No dead job left a profile here.\n");
        return ExitCode::SUCCESS;
    }
    Properties table;
    table.set("dead jobs", rows);
    std::ostringstream text;
    ResponsePrinter(text).print(table.toString());
    _console.print(text.str() + "orvexctl postmortem NUMBER tells what one did last.\n");
    return ExitCode::SUCCESS;
}

int CtlPostmortem::show(const ProfileJob& job, const Wish& wish) {
    const PostmortemReport report(job);
    if (!wish.rank) {
        _console.print(_isJson ? report.toProperties().toString() + "\n" : report.getText());
        return ExitCode::SUCCESS;
    }
    const std::optional<std::string> text = report.describeRank(*wish.rank);
    if (!text)
        return fail("Rank " + std::to_string(*wish.rank) + " left no profile here");
    const auto& members = job.getMembers();
    const auto member = std::find_if(members.begin(), members.end(),
                                     [&wish](const auto& each) { return each.rank == *wish.rank; });
    _console.print(_isJson ? member->toProperties().toString() + "\n" : *text);
    return ExitCode::SUCCESS;
}

int CtlPostmortem::remove(const std::vector<ProfileJob>& jobs, const Wish& wish) {
    std::size_t removed = 0;
    if (wish.job == ALL) {
        for (const ProfileJob& job : jobs)
            removed += job.hasDead() ? job.remove() : 0;
    } else {
        const ProfileJob* const job = find(jobs, wish.job);
        if (job == nullptr)
            return fail("There is no dead job \"" + wish.job + "\" here");
        removed = job->remove();
    }
    Properties result;
    result.set("removed", removed);
    _console.print(_isJson ? result.toString() + "\n"
                           : "Removed the profiles of " + std::to_string(removed) +
                                 (removed == 1 ? " rank.\n" : " ranks.\n"));
    return ExitCode::SUCCESS;
}

int CtlPostmortem::fail(const std::string& reason) {
    _console.tell("Error: " + reason);
    return ExitCode::COMMAND_FAILED;
}
