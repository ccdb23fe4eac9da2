#include "check/report.h"

#include "check/json_output.h"
#include "check/terminal.h"

#include <algorithm>
#include <iomanip>
#include <iostream>

namespace {

constexpr Message PACKAGE = {"TqlChk0071N", "package %s, %s"};
constexpr Message CHECKED = {"TqlChk0072N", "Checked: packages %s, files %s, signatures %s."};
constexpr Message COUNTS = {"TqlChk0073N", "Findings: %s, warnings: %s, pending: %s."};

struct OutcomeRow {
    const char* label;
    const char* json;
    const char* colour;
};
constexpr OutcomeRow OUTCOMES[] = {{"ok  ", "ok", "\x1b[32m"},
                                   {"warn", "warning", "\x1b[33m"},
                                   {"FAIL", "fail", "\x1b[31m"},
                                   {"skip", "skip", ""}};
constexpr const char* SEVERITIES[] = {"finding", "warning", "pending"};

constexpr int NAME_WIDTH = 19; // the longest condition's

const OutcomeRow& row_of(Outcome outcome) {
    return OUTCOMES[static_cast<int>(outcome)];
}

long count(const std::vector<Condition>& conditions, Outcome outcome) {
    return std::count_if(conditions.begin(), conditions.end(),
                         [outcome](const Condition& each) { return each.outcome == outcome; });
}

long count(const std::vector<Finding>& findings, Severity severity) {
    return std::count_if(findings.begin(), findings.end(),
                         [severity](const Finding& each) { return each.severity == severity; });
}

void print_remedy(const std::string& text, const std::string& command) {
    if (!text.empty())
        std::cout << "      " << text << '\n';
    if (!command.empty())
        std::cout << "      " << command << '\n';
}

void print_conditions(const std::vector<Condition>& conditions, bool quiet) {
    const bool colours = has_colours();
    for (const Condition& condition : conditions) {
        const OutcomeRow& row = row_of(condition.outcome);
        if (quiet && (condition.outcome == Outcome::OK || condition.outcome == Outcome::SKIP))
            continue;
        std::cout << (colours ? row.colour : "") << row.label << (colours ? "\x1b[m" : "") << "  "
                  << std::left << std::setw(NAME_WIDTH) << condition.name << "  "
                  << escaped(condition.subject, true);
        for (const std::string& part :
             {render(condition.note, Language::USER), escaped(condition.cause, true)})
            if (!part.empty())
                std::cout << ": " << part;
        std::cout << '\n';
        print_remedy(render(condition.remedy, Language::USER), condition.command);
    }
}

void print_findings(const RepositoryReport& report, bool quiet) {
    for (const Finding& finding : report.findings) {
        std::cout << (finding.severity == Severity::PENDING ? "pending" : finding.kind->name) << ": ";
        if (!finding.path.empty())
            std::cout << escaped(finding.path, true) << ": ";
        if (!finding.id.empty())
            std::cout << render({&PACKAGE, {finding.id, finding.file_name}}, Language::USER) << ": ";
        std::cout << render({&finding.kind->message, finding.details}, Language::USER) << '\n';
        if (finding.severity != Severity::PENDING)
            print_remedy("", finding.remedy);
    }
    if (quiet)
        return;
    const auto counted = [&](Severity severity) { return std::to_string(count(report.findings, severity)); };
    std::cout << render({&CHECKED,
                         {std::to_string(report.packages), std::to_string(report.files),
                          std::to_string(report.signatures)}},
                        Language::USER)
              << ' '
              << render(
                     {&COUNTS,
                      {counted(Severity::FINDING), counted(Severity::WARNING), counted(Severity::PENDING)}},
                     Language::USER)
              << '\n';
}

json_t* json_of(const Condition& condition) {
    return json_pack("{s:s, s:s, s:o, s:o, s:o, s:o, s:o}", "name", condition.name, "status",
                     row_of(condition.outcome).json, "subject", json_text(condition.subject), "note",
                     json_message(condition.note), "cause", json_text(condition.cause), "remedy",
                     json_message(condition.remedy), "command", json_string(condition.command.c_str()));
}

json_t* json_of(const Finding& finding) {
    const bool pending = finding.severity == Severity::PENDING;
    return json_pack("{s:s, s:s, s:o, s:o, s:o, s:o, s:o}", "name", pending ? "pending" : finding.kind->name,
                     "severity", SEVERITIES[static_cast<int>(finding.severity)], "packageId",
                     json_text(finding.id), "fileName", json_text(finding.file_name), "path",
                     json_text(finding.path), "message",
                     json_message({&finding.kind->message, finding.details}), "command",
                     json_string(pending ? "" : finding.remedy.c_str()));
}

template <typename Each>
void write_array(const char* name, const std::vector<Each>& all) {
    std::cout << ",\n\"" << name << "\":[";
    const char* separator = "\n";
    for (const Each& each : all) {
        std::cout << separator;
        write_json(std::cout, json_of(each));
        separator = ",\n";
    }
    std::cout << ']';
}

json_int_t number(std::size_t value) {
    return static_cast<json_int_t>(value);
}

} // namespace

bool Report::has_findings() const {
    return (setup && count(*setup, Outcome::FAIL) > 0) ||
           (repository && count(repository->findings, Severity::FINDING) > 0);
}

void print_report(const Report& report, bool quiet) {
    if (report.setup)
        print_conditions(*report.setup, quiet);
    if (report.repository)
        print_findings(*report.repository, quiet);
}

void print_json_report(const Report& report) {
    const std::vector<Condition> setup = report.setup.value_or(std::vector<Condition>());
    const RepositoryReport repository = report.repository.value_or(RepositoryReport());
    const std::vector<Finding>& findings = repository.findings;
    begin_document(std::cout);
    std::cout << ",\n\"checked\":";
    write_json(std::cout,
               json_pack("{s:b, s:b, s:I, s:I, s:I}", "setup", report.setup.has_value(), "repository",
                         report.repository.has_value(), "packages", number(repository.packages), "files",
                         number(repository.files), "signatures", number(repository.signatures)));
    std::cout << ",\n\"counts\":";
    write_json(std::cout,
               json_pack("{s:I, s:I, s:I, s:I, s:I, s:I}", "ok", count(setup, Outcome::OK), "warnings",
                         count(setup, Outcome::WARNING) + count(findings, Severity::WARNING), "failures",
                         count(setup, Outcome::FAIL), "skipped", count(setup, Outcome::SKIP), "findings",
                         count(findings, Severity::FINDING), "pending", count(findings, Severity::PENDING)));
    write_array("setup", setup);
    write_array("findings", findings);
    std::cout << "}\n";
}
