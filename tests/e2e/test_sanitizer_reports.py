"""The wiring that turns a ThreadSanitizer report of a daemon into a failed
test: every process a test starts inherits TSAN_OPTIONS with a log_path in the
test's own folder, and conftest fails the test when a report lands there."""

import os
import shutil
import subprocess

import pytest

from tests.e2e import kit

RACY = r"""
#include <pthread.h>
#include <stdio.h>
int shared;
static void *bump(void *arg) { (void)arg; shared++; return NULL; }
int main(void)
{
    pthread_t t;
    pthread_create(&t, NULL, bump, NULL);
    shared++;
    pthread_join(t, NULL);
    printf("%d\n", shared);
    return 0;
}
"""


def test_every_process_reports_into_the_tests_folder(thread_sanitizer_reports):
    options = os.environ["TSAN_OPTIONS"].split(":")
    assert f"log_path={thread_sanitizer_reports}/{kit.TSAN_REPORT}" in options
    assert sum(o.startswith("log_path=") for o in options) == 1


def test_a_race_in_a_started_process_is_found(thread_sanitizer_reports, tmp_path):
    cc = shutil.which("gcc")
    if cc is None:
        pytest.skip("no C compiler")
    src = tmp_path / "racy.c"
    src.write_text(RACY)
    exe = tmp_path / "racy"
    subprocess.run([cc, "-fsanitize=thread", "-g", "-O1", "-o", str(exe), str(src)], check=True)
    # Started the way the daemon is: the test's environment, its own process.
    r = subprocess.run([str(exe)], capture_output=True, text=True, timeout=60)
    assert r.stdout == "2\n"
    found = kit.sanitizer_reports(str(thread_sanitizer_reports))
    assert len(found) == 1
    name, text = found[0]
    assert "WARNING: ThreadSanitizer: data race" in text
    assert "bump" in text
    # This one was asked for: take it away so the fixture passes the test.
    os.remove(os.path.join(thread_sanitizer_reports, name))
