#include "check/repository.h"

#include "check/package_list.h"
#include "check/remedies.h"
#include "check/signatures.h"
#include "platform/paths.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

namespace {

// A deletion takes its files away right after its registration; so long it may take.
constexpr std::chrono::seconds BETWEEN_LOOKS{2};

std::time_t time_of(const std::string& utc) {
    std::tm parts{};
    return strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%S", &parts) != nullptr ? timegm(&parts) : 0;
}

// The name in the repository directory that a registered path stands for; empty where it stands for none.
std::string_view name_in_repository(const std::string& path) {
    const std::string_view directory = REPOSITORY_DIRECTORY;
    if (path.compare(0, directory.size(), directory) != 0 || path[directory.size()] != '/')
        return {};
    const std::string_view name = std::string_view(path).substr(directory.size() + 1);
    const bool is_name = name != "." && name != ".." && name.find('/') == std::string_view::npos &&
                         name.find('\0') == std::string_view::npos;
    return is_name ? name : std::string_view();
}

bool is_temporary_name(const std::string& name) {
    const std::string_view part = ".part";
    return name.compare(0, 4, "tmp_") == 0 ||
           (name[0] == '.' && name.size() > part.size() &&
            name.compare(name.size() - part.size(), part.size(), part) == 0);
}

std::string state_of(const struct stat& status) {
    return std::to_string(status.st_ino) + ":" + std::to_string(status.st_ctim.tv_sec) + ":" +
           std::to_string(status.st_ctim.tv_nsec);
}

std::string path_of(const std::string& name) {
    return std::string(REPOSITORY_DIRECTORY) + "/" + name;
}

class Comparer {
  public:
    Comparer(const std::vector<Registration>& packages, const Directory& directory,
             const std::string& master_server, std::time_t now, long settle)
        : packages_(packages), directory_(directory), master_server_(master_server), now_(now),
          settle_(settle) {}

    Comparison run() {
        gather_names();
        find_shared();
        find_duplicates();
        for (const Registration& package : packages_)
            for (const std::string& path : package.paths)
                compare_path(package, path);
        for (const auto& [name, status] : directory_.entries)
            look_at_entry(name, status);
        judge_mode(REPOSITORY_DIRECTORY, directory_.status);
        return std::move(result_);
    }

  private:
    using Reference = std::pair<std::string_view, const Registration*>;

    void add(const FindingKind& kind, const Registration& package, const std::string& path,
             std::vector<std::string> details, std::string remedy) {
        result_.findings.push_back({&kind, Severity::FINDING, package.id, package.file_name, path,
                                    std::move(details), std::move(remedy)});
    }

    void gather_names() {
        for (const Registration& package : packages_)
            for (const std::string& path : package.paths)
                if (const std::string_view name = name_in_repository(path); !name.empty())
                    references_.emplace_back(name, &package);
                else
                    not_to_delete_.insert(package.id);
        std::stable_sort(references_.begin(), references_.end(),
                         [](const Reference& a, const Reference& b) { return a.first < b.first; });
    }

    // All but the last package of a name are told: once they are gone, the name has one owner.
    void find_shared() {
        for (std::size_t i = 1; i < references_.size(); ++i) {
            const Reference& before = references_[i - 1];
            const Reference& after = references_[i];
            if (before.first != after.first || before.second->id == after.second->id)
                continue;
            not_to_delete_.insert({before.second->id, after.second->id});
            add(SHARED_FILE, *before.second, path_of(std::string(before.first)), {after.second->id},
                unregistration(before.second->id, master_server_));
        }
    }

    void find_duplicates() {
        std::vector<const Registration*> by_name;
        by_name.reserve(packages_.size());
        for (const Registration& package : packages_)
            by_name.push_back(&package);
        std::stable_sort(by_name.begin(), by_name.end(), [](const Registration* a, const Registration* b) {
            return a->file_name < b->file_name;
        });
        for (std::size_t i = 1; i < by_name.size(); ++i)
            if (by_name[i - 1]->file_name == by_name[i]->file_name && by_name[i - 1]->id != by_name[i]->id)
                add(DUPLICATE_NAME, *by_name[i - 1], "", {by_name[i]->id}, removal(*by_name[i - 1]));
    }

    // Deletes the package, unless "qvrepo -delete" would take files of another package or of the system.
    std::string removal(const Registration& package) const {
        return not_to_delete_.count(package.id) != 0 ? unregistration(package.id, master_server_)
                                                     : deletion(package.id);
    }

    bool is_young(const Registration& package) const { return std::abs(now_ - package.created) < settle_; }

    void compare_path(const Registration& package, const std::string& path) {
        const std::string name(name_in_repository(path));
        if (name.empty()) {
            add(OUTSIDE, package, path, {}, removal(package));
            return;
        }
        const auto entry = directory_.entries.find(name);
        if (entry == directory_.entries.end()) {
            add(MISSING_FILE, package, path, {}, removal(package));
            if (is_young(package))
                result_.findings.back().severity = Severity::PENDING;
        } else if (!S_ISREG(entry->second.st_mode)) {
            add(NOT_A_FILE, package, path, {},
                (S_ISDIR(entry->second.st_mode) ? moving_away(path) + " && " : "") + removal(package));
        } else {
            compare_file(package, path, name, entry->second);
        }
    }

    void compare_file(const Registration& package, const std::string& path, const std::string& name,
                      const struct stat& status) {
        // The file of before, which the add of a young package is about to replace.
        const bool is_earlier = is_young(package) && status.st_ctim.tv_sec < package.created;
        const Severity severity = is_earlier ? Severity::PENDING : Severity::FINDING;
        // Registered with size 0 is a package whose size could not be told.
        if (package.single && package.size != 0 &&
            package.size != static_cast<std::uint64_t>(status.st_size)) {
            add(WRONG_SIZE, package, path, {std::to_string(status.st_size), std::to_string(package.size)},
                removal(package));
            result_.findings.back().severity = severity;
            result_.findings.back().state = state_of(status);
            return;
        }
        result_.candidates.push_back({name,
                                      package.single,
                                      {nullptr,
                                       severity,
                                       package.id,
                                       package.file_name,
                                       path,
                                       {},
                                       removal(package),
                                       state_of(status)}});
    }

    void look_at_entry(const std::string& name, const struct stat& status) {
        const bool listed =
            std::binary_search(references_.begin(), references_.end(), Reference(name, nullptr),
                               [](const Reference& a, const Reference& b) { return a.first < b.first; });
        if (S_ISREG(status.st_mode))
            judge_mode(path_of(name), status);
        if (listed || S_ISDIR(status.st_mode))
            return;
        const bool temporary = S_ISREG(status.st_mode) && is_temporary_name(name);
        if (temporary && has_writer(status))
            return;
        add(temporary ? LEFTOVER : UNLISTED_FILE, {}, path_of(name), {}, removal_of_file(path_of(name)));
        result_.findings.back().state = state_of(status);
    }

    void judge_mode(const std::string& path, const struct stat& status) {
        if (const std::string remedy = tightening(path, status); !remedy.empty())
            add(UNSAFE_MODE, {}, path, {std::to_string(status.st_uid), mode_text(status.st_mode)}, remedy);
    }

    const std::vector<Registration>& packages_;
    const Directory& directory_;
    const std::string& master_server_;
    std::time_t now_;
    long settle_;
    std::vector<Reference> references_; // in order of name
    std::set<std::string> not_to_delete_;
    Comparison result_;
};

// The kind of finding, if any, that a verdict on a file is. The files of a bundle came with a signature
// around all of them, and need none of their own.
const FindingKind* kind_of(Verdict verdict, bool single) {
    switch (verdict) {
    case Verdict::CONFIRMED:
    case Verdict::GONE:
        return nullptr;
    case Verdict::NOT_SIGNED:
        return &UNSIGNED;
    case Verdict::NOT_AN_ARCHIVE:
        return single ? &BAD_SIGNATURE : &UNSIGNED;
    case Verdict::NOT_CONFIRMED:
        return &BAD_SIGNATURE;
    case Verdict::NOT_READABLE:
        return &UNREADABLE;
    }
    return nullptr;
}

void check_candidates(std::vector<Candidate> candidates, const Directory& directory,
                      const RepositoryOptions& options, RepositoryReport& report) {
    std::vector<std::string> names;
    names.reserve(candidates.size());
    for (const Candidate& candidate : candidates)
        names.push_back(candidate.name);
    const std::vector<SignatureResult> results =
        check_signatures(directory, names, options.jobs, options.show_progress);
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        Finding& finding = candidates[i].finding;
        finding.kind = kind_of(results[i].verdict, candidates[i].single);
        if (finding.kind == nullptr)
            continue;
        if (finding.kind == &UNSIGNED && !candidates[i].single)
            finding.severity = Severity::WARNING;
        if (finding.kind == &UNREADABLE)
            finding.details = {std::strerror(results[i].error)};
        report.findings.push_back(std::move(finding));
    }
    report.signatures = candidates.size();
}

using Identity = std::tuple<const FindingKind*, std::string, std::string, std::string>;

Identity identity_of(const Finding& finding) {
    return {finding.kind, finding.id, finding.path, finding.state};
}

// One look. Of signatures it checks those of the files in `names`; of all files, with a null pointer.
RepositoryReport look(const std::string& master_server, const RepositoryOptions& options,
                      const std::set<std::string>* paths) {
    // The directory first: a file that comes after this is not taken for one without a package.
    const Directory directory = walk_directory(REPOSITORY_DIRECTORY);
    const std::vector<Registration> packages = registrations_of(list_packages(master_server));
    Comparison comparison = compare(packages, directory, master_server, std::time(nullptr), options.settle);
    RepositoryReport report;
    report.packages = packages.size();
    for (const auto& entry : directory.entries)
        report.files += S_ISDIR(entry.second.st_mode) ? 0U : 1U;
    report.findings = std::move(comparison.findings);
    std::vector<Candidate>& candidates = comparison.candidates;
    if (paths != nullptr)
        candidates.erase(
            std::remove_if(candidates.begin(), candidates.end(),
                           [&](const Candidate& each) { return paths->count(each.finding.path) == 0; }),
            candidates.end());
    if (!options.skip_signatures)
        check_candidates(std::move(candidates), directory, options, report);
    return report;
}

} // namespace

std::vector<Registration> registrations_of(std::vector<QvRepoPackage> packages) {
    std::vector<Registration> registrations;
    registrations.reserve(packages.size());
    for (QvRepoPackage& package : packages) {
        const bool single = !package.isBundle();
        registrations.push_back({std::move(package.id), std::move(package.packageFileName),
                                 std::move(package.packageItemFilePaths), package.size,
                                 time_of(package.createdDateTimeUTC), single});
    }
    return registrations;
}

Comparison compare(const std::vector<Registration>& packages, const Directory& directory,
                   const std::string& master_server, std::time_t now, long settle) {
    return Comparer(packages, directory, master_server, now, settle).run();
}

RepositoryReport check_repository(const RepositoryOptions& options) {
    const std::string master_server = this_master_server();
    RepositoryReport report = look(master_server, options, nullptr);
    if (report.findings.empty())
        return report;
    std::set<Identity> found;
    std::set<std::string> paths;
    for (const Finding& finding : report.findings) {
        found.insert(identity_of(finding));
        paths.insert(finding.path);
    }
    std::this_thread::sleep_for(BETWEEN_LOOKS);
    std::vector<Finding> again = look(master_server, options, &paths).findings;
    again.erase(std::remove_if(again.begin(), again.end(),
                               [&](const Finding& each) { return found.count(identity_of(each)) == 0; }),
                again.end());
    report.findings = std::move(again);
    return report;
}
