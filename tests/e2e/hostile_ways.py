"""The requests at which a service can misbehave, and what the program then says, logs and leaves."""

from typing import NamedTuple

from hostile_answers import FILE_NAME, GOOD_PACKAGE, TextBeginning
from scripted_service import ScriptedService, answer
from world import INSTRUMENTED, REPOSITORY, read_log_records, run_measured

# Peak memory of a refused answer, unless the answer itself is longer.
LITTLE_MEMORY = 30  # MB

STATUS_TEXTS = {
    20: "invalid command parameter", 104: "Package path is not valid.", 110: "failed to read master config.",
    111: "no master server found.", 117: "authorization failed.", 118: "authorization failed.",
    132: "must be administrator.", 153: "the operation is only supported on master server.",
    5761: "Failed to initialize Windows Socket library.", 5930: "authorization failed.",
    7214: "Failed to copy the specified file. Could not copy package to repository.",
    7215: "Input package file verification failed. Failed to stat Dunmarel package.",
    7216: "Unrecognized package name.",
    7217: "Package repository location does not exist.", 7218: "Package already exists in the repository.",
    7219: "Invalid package ID.", 7220: "Deployment package is not found in the repository.",
    7221: "Package delete operation was canceled.",
    7225: "A required file or directory was not found. Input file path does not exist.",
    7235: "Input package file verification failed. Could not open package file.",
    7236: "The Dunmarel package signature is invalid.",
    7237: "Input package file verification failed. The public key was not found at the expected location.",
    7252: "The attempt to extract a package was unsuccessful.", 7264: "Package version is not supported.",
    7265: "Package type is not supported.", 7266: "Package operating system is not supported.",
    7267: "Package EEB version is not supported.", 8000: "authorization failed.",
    9103: "Unexpected response from the web service."}

# Shown, but not logged.
UNLOGGED = (55, 110, 111, 132)
CANCELED = 7221


def error_line(status):
    text = STATUS_TEXTS.get(status, f"qvrepo operation failed with status [{status}].")
    return f"{'' if status == CANCELED else 'Error: '}{text}\n"


def closing_records(status):
    """The last records of a run that ends with `status`."""
    said = [] if status in UNLOGGED else [(16, "main", STATUS_TEXTS.get(status, f"status code {status}"))]
    return [*said, (4, "main", f"qvrepo exit status: [{status}]")]


class Way(NamedTuple):
    """One request of one command, the last that is sent when its answer is bad."""

    arguments: list
    method: str
    expected: int  # the HTTP code that counts as a success
    level: int  # of the command's own line about a failed request or an answer that is not a package
    function: str
    request_failed: str  # that line, without the code
    body_failed: str = None  # the line about a body, whole
    before: list = []  # the answers to the requests before
    stdin: str = None
    stdout: str = ""
    uri: str = "quorvelle/deployment/packages/7"
    maps: bool = False  # whether the service's codes for an unknown and a malformed ID get statuses of their own

    @property
    def methods(self):
        return ["GET"] * len(self.before) + [self.method]

    def status_of(self, code):
        return {227: 7220, 8626: 7219}.get(code, code) if self.maps else code

    def request_records(self, code):
        """The command's own lines about a request that ended with `code`."""
        end = ". " if self.request_failed.startswith("Failed to delete") else "."
        records = [(self.level, self.function, f"{self.request_failed}{code}{end}")]
        if self.maps and code == 227:
            records.append((16, self.function, "Package ID [7] does not exist in the repository."))
        if self.maps and code == 8626:
            records.append((16, self.function, "[7] is not a valid package ID."))
        return records

    def exchange_records(self, http_code, body):
        return [(2, "curlSendRequest", f"Http response body: {body}"),
                (2, "curlSendRequest", f"Actual http response code: {http_code} , expected http response code: "
                                       f"{self.expected}")]

    def no_exchange_records(self, code):
        return [(16, "QVClientCURL", TextBeginning("")),
                (16, "curlSendRequest", f"Failed to perform curl request for URI : {self.uri}.  retval : {code}")]


_RETRIEVE = "Failed to retrieve deployment package in the repository. Error code returned from "

LIST = Way(["-list"], "GET", 200, 2, "listPackagesCmd",
           "Failed to list deployment packages in the repository. Error code returned from curlSendRequest: ",
           "Failed to list deployment packages in the repository. Error code returned from "
           "parseJSONResponsePackageArray: 9103.", uri="quorvelle/deployment/packages")
DETAILS = Way(["-pkgDetails", "7"], "GET", 200, 2, "getPackageDetailsCmd", f"{_RETRIEVE}curlSendRequest: ",
              f"{_RETRIEVE}QvRepoPackage: 9103.", maps=True)
DELETE_LOOK = Way(["-delete", "7"], "GET", 200, 16, "deletePackageCmd", f"{_RETRIEVE}curlSendRequest: ",
                  f"{_RETRIEVE}QvRepoPackage: 9103.", stdin="y\n", maps=True)
DELETE = Way(["-delete", "7"], "DELETE", 204, 2, "deletePackageCmd",
             "Failed to delete deployment package ID: 7 from the repository. Error code returned from "
             "curlSendRequest: ",
             before=[answer(200, GOOD_PACKAGE)], stdin="y\n", stdout="qvrepo: delete package ID 7 [y/n]? (n) ")
ADD = Way(["-add"], "POST", 201, 16, "addPackagesCmd",
          "Failed to add deployment package metadata. Error code returned from curlSendRequest: ",
          "Failed to add deployment package to repository location. Error code returned from QvRepoPackage: 0. ",
          stdout="Adding package to the repository. This may take a few minutes...\n",
          uri="quorvelle/deployment/packages")

NAMES = {"list": LIST, "pkgDetails": DETAILS, "delete-look": DELETE_LOOK, "delete": DELETE, "add": ADD}


class Run(NamedTuple):
    """A run of the program against a service that gave a bad answer."""

    outcome: tuple
    peak: float  # MB
    records: list  # of the log, after those of the start-up and of earlier requests
    methods: list  # of the requests that came whole


def run(way, reply, package_file):
    """Runs the way's command against a service that answers its last request with `reply`."""
    arguments = [*way.arguments, package_file] if way is ADD else way.arguments
    # Has to be there still, whatever the command.
    (REPOSITORY / FILE_NAME).write_bytes(b"kept")
    with ScriptedService(*way.before, reply) as service:
        outcome, peak = run_measured(*arguments, stdin=way.stdin)
    records = read_log_records()
    sendings = [place for place, record in enumerate(records) if record[2].startswith("Sending curl request")]
    assert len(sendings) == len(way.methods), records
    assert records[sendings[-1]] == (2, "curlSendRequest", f"Sending curl request with URI : {way.uri}.")
    rest = records[sendings[-1] + 1:]
    if way is ADD:
        assert rest[0][:2] == (2, "curlSendRequest") and rest[0][2].startswith('Request body: {"data":')
        rest = rest[1:]
    return Run(outcome, peak, rest, [line.split()[0] for line, _, _ in service.requests])


def check_refused(way, reply, status, records, package_file):
    """Checks every result of a bad answer: the line, the exit status, the log, requests, files and memory."""
    result = run(way, reply, package_file)
    assert result.outcome == (way.stdout, error_line(status), status & 0xFF)
    assert result.records == [*records, *closing_records(status)]
    assert result.methods == way.methods
    assert [(entry.name, entry.read_bytes()) for entry in REPOSITORY.iterdir()] == [(FILE_NAME, b"kept")]
    assert INSTRUMENTED or 0 < result.peak < LITTLE_MEMORY
