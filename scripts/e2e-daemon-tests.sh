# shellcheck shell=bash disable=SC2034
# Sourced by scripts/test.sh and scripts/cross.sh: the pytest arguments that
# leave out of tests/e2e what never starts an orkad. The lab's own tests run
# once, natively, in the plain suite; a second daemon build (ThreadSanitizer,
# ARM under qemu-user) changes nothing for them. The packaging and upgrade
# tests make and unpack native packages, so they stay with the native build
# too. orkadctl's own tests talk to a stand-in daemon and need the native
# client only.
e2e_lab_only=(
    --ignore=tests/e2e/test_lab_controller.py --ignore=tests/e2e/test_lab_ctl.py
    --ignore=tests/e2e/test_lab_dashboard.py --ignore=tests/e2e/test_lab_views.py
    --ignore=tests/e2e/test_lab_statistics.py --ignore=tests/e2e/test_lab_syslog.py
    --ignore=tests/e2e/test_packaging.py --ignore=tests/e2e/test_upgrade.py
    --ignore=tests/e2e/test_orkadctl_client.py
)
