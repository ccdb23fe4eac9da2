"""What qvmaster keeps: over restarts and kills, beside slow readers, and from a file that is not whole."""

import http.client
import json
import os
import sqlite3
import threading

import pytest
from world import (
    LONG_ITEMS,
    PACKAGES,
    TLS,
    await_that,
    chunked_body,
    creation_body,
    raw_request,
    run_qvmaster,
    read_slowly_begun,
    send,
    slow_client,
)


def listed_ids(master):
    return [int(package["id"]) for package in master.get().json["data"]]


def test_packages_are_there_after_a_restart(master):
    first = master.register("a.sja", [("x", 1), ("y", 2)])
    second = master.register("b.sja", [])
    assert master.stop() == 0
    master.start()
    assert master.get().json == {"data": [first, second]}


def test_an_id_is_never_given_twice(master):
    assert master.register("a.sja")["id"] == "1"
    assert master.register("b.sja")["id"] == "2"
    master.delete(2)
    assert master.register("c.sja")["id"] == "3"
    master.delete(3)
    master.delete(1)
    master.stop()
    master.start()
    assert master.register("a.sja")["id"] == "4"


def test_a_refused_package_takes_no_id(master):
    master.register("a.sja")
    for _ in range(3):
        assert master.post(creation_body("a.sja")).status == 409
    assert master.register("b.sja")["id"] == "2"


def test_of_many_that_add_the_same_file_name_at_once_exactly_one_succeeds(master):
    together = threading.Barrier(20)
    statuses = []

    def add():
        connection = master.connect()
        together.wait()
        statuses.append(send(connection, "POST", PACKAGES, creation_body("same.sja")).status)
        connection.close()

    run_together([add] * 20)
    assert sorted(statuses) == [201] + [409] * 19
    assert listed_ids(master) == [1]


def run_together(actions):
    threads = [threading.Thread(target=action) for action in actions]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def test_many_clients_at_once_lose_nothing_and_get_ids_of_their_own(master):
    kept, given, wrong = set(), [], []

    def work(client):
        connection = master.connect()
        for i in range(6):
            created = send(connection, "POST", PACKAGES, creation_body(f"{client}-{i}.sja"))
            package_id = created.json["data"]["id"]
            details = send(connection, "GET", f"{PACKAGES}/{package_id}")
            listed = send(connection, "GET", PACKAGES)
            if (created.status, details.json, listed.status) != (201, created.json, 200):
                wrong.append((created, details, listed))
            given.append(package_id)
            if i % 2:
                if send(connection, "DELETE", f"{PACKAGES}/{package_id}").status != 204:
                    wrong.append(package_id)
            else:
                kept.add(int(package_id))
        connection.close()

    run_together([lambda client=client: work(client) for client in range(60)])
    assert wrong == []
    assert len(given) == len(set(given)) == 360
    assert listed_ids(master) == sorted(kept)


def test_what_was_acknowledged_survives_a_kill(idle_master):
    acknowledged = {}
    deleted = set()

    def work(connection, life):
        try:
            for i in range(10000):
                created = send(connection, "POST", PACKAGES, creation_body(f"{life}-{i}.sja"))
                acknowledged[int(created.json["data"]["id"])] = f"{life}-{i}.sja"
                enough.release()
                if i % 3 == 0:
                    last = max(acknowledged)
                    doubtful.add(last)
                    if send(connection, "DELETE", f"{PACKAGES}/{last}").status == 204:
                        deleted.add(last)
        except (OSError, http.client.HTTPException):
            pass

    highest = 0
    doubtful = set()
    for life in range(5):
        idle_master.start()
        enough = threading.Semaphore(0)
        worker = threading.Thread(target=work, args=(idle_master.connect(), life))
        worker.start()
        for _ in range(40):
            enough.acquire()
        assert min(key for key, name in acknowledged.items() if name.startswith(f"{life}-")) > highest
        idle_master.kill()
        worker.join()
        highest = max(acknowledged)
        kept = {package["id"]: package["packageFileName"] for package in idle_master.packages()}
        assert acknowledged.items() - kept.items() <= {(key, acknowledged[key]) for key in doubtful}
        assert not deleted & set(kept)
        with sqlite3.connect(idle_master.database) as database:
            assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        database.close()


def test_a_list_of_thousands_is_complete_and_in_order(master):
    master.register_many(5000, name="package {}.sja")
    packages = master.get().json["data"]
    assert [(int(package["id"]), package["attributes"]["packageFileName"]) for package in packages] == [
        (i + 1, f"package {i}.sja") for i in range(5000)
    ]


def test_a_list_of_any_length_is_whole_json(master):
    # Parts of about 64 KiB: this goes over one and two of their borders, step by step.
    for count in range(1, 9):
        master.register(f"{count}.sja", [("x" * 5000 + f"{count}-{i}", 1) for i in range(4)])
        assert listed_ids(master) == list(range(1, count + 1))


def test_a_slow_reader_gets_what_stays_of_the_list_and_holds_up_nobody(master):
    master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    with slow_client(master) as client:
        client.sendall(raw_request("GET", PACKAGES)[:-2] + b"Connection: close\r\n\r\n")
        beginning = client.recv(1000)
        assert master.delete(1000).status == 204
        assert master.register("new.sja")["id"] == "1001"
        assert len(listed_ids(master)) == 1000
        packages = json.loads(chunked_body(beginning + read_slowly_begun(client)))["data"]
    assert [int(package["id"]) for package in packages] == list(range(1, 1000))


def test_a_client_that_stops_reading_is_dropped(idle_master):
    idle_master.start("--timeout", "1")
    alone = idle_master.sockets()
    idle_master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    with slow_client(idle_master) as client:
        client.sendall(raw_request("GET", PACKAGES))
        beginning = client.recv(1000)
        await_that(lambda: idle_master.sockets() == alone, "the client is dropped")
        assert chunked_body(beginning + read_slowly_begun(client)) is None


def test_a_list_that_cannot_be_finished_breaks_off(master):
    master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    master.stop()
    master.start()
    with slow_client(master) as client:
        client.sendall(raw_request("GET", PACKAGES))
        beginning = client.recv(1000)
        os.truncate(master.database, 4096 * 100)
        assert chunked_body(beginning + read_slowly_begun(client)) is None
    assert master.kill() == -9
    assert len(master.problems()) == 1
    assert master.problems()[0].startswith("qvmaster: the database fails: ")


def words(database):
    return ["--db", database, "--tls", TLS, "--port", "0"]


@pytest.fixture
def stopped_database(master):
    master.register_many(300)
    master.stop()
    return master.database


def refusal(database):
    outcome = run_qvmaster(*words(database))
    assert (outcome.stdout, outcome.status) == ("", 1)
    assert outcome.stderr.count("\n") == 1
    return outcome.stderr


def test_a_file_that_is_no_database_is_refused(tmp_path):
    file = tmp_path / "notes"
    file.write_bytes(b"this is no database" * 1000)
    assert refusal(file) == f"qvmaster: cannot use the database {file}: the database refuses a statement: " + (
        "file is not a database\n"
    )
    assert file.read_bytes() == b"this is no database" * 1000


def test_a_damaged_database_is_refused(stopped_database):
    content = bytearray(stopped_database.read_bytes())
    content[8192:] = bytes(len(content) - 8192)
    stopped_database.write_bytes(content)
    assert refusal(stopped_database).startswith(f"qvmaster: cannot use the database {stopped_database}: ")


def test_a_cut_database_is_refused(stopped_database):
    os.truncate(stopped_database, os.path.getsize(stopped_database) // 2)
    assert refusal(stopped_database).startswith(f"qvmaster: cannot use the database {stopped_database}: ")


def test_the_database_of_another_program_is_refused_and_left_alone(tmp_path):
    file = tmp_path / "other.db"
    with sqlite3.connect(file) as database:
        database.execute("CREATE TABLE packages (id INTEGER)")
    database.close()
    assert refusal(file) == f"qvmaster: cannot use the database {file}: the database belongs to another program\n"
    with sqlite3.connect(file) as database:
        assert database.execute("SELECT name FROM sqlite_schema").fetchall() == [("packages",)]
    database.close()


def test_a_database_of_another_version_is_refused(stopped_database):
    with sqlite3.connect(stopped_database) as database:
        database.execute("PRAGMA user_version = 2")
    database.close()
    assert refusal(stopped_database) == (
        f"qvmaster: cannot use the database {stopped_database}: "
        "the database comes from another version of qvmaster\n"
    )


def test_a_database_in_a_missing_folder_is_refused(tmp_path):
    file = tmp_path / "missing" / "db"
    assert refusal(file) == f"qvmaster: cannot open the database {file}: unable to open database file\n"
