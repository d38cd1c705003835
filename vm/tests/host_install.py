"""The install step as a boot server's operator meets it: what it installs, and that a web server that
ran before is left running and enabled. Stubs of dpkg-query, apt-get, systemctl and nginx stand in for
the machine."""
import os
import stat
import subprocess
import tempfile
import textwrap
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
ENSURE = os.path.join(ROOT, "vm", "ensure-packages")

STUBS = {
    # Installed packages are the lines of $STATE/installed.
    "dpkg-query": """
        pkg="${@: -1}"
        grep -qx "$pkg" "$STATE/installed" 2>/dev/null && echo "install ok installed" || exit 1
    """,
    # An install of nginx-light brings a nginx with WebDAV and, as Debian's package does under
    # systemd, starts and enables its service.
    "apt-get": """
        echo "apt-get $*" >>"$STATE/calls"
        [ "$1" = install ] || exit 0
        for pkg in "$@"; do
          case "$pkg" in -*|install) continue ;; esac
          echo "$pkg" >>"$STATE/installed"
          if [ "$pkg" = nginx-light ]; then
            echo dav >"$STATE/nginx"
            [ -f "$STATE/systemd" ] && echo "active enabled" >"$STATE/unit"
          fi
        done
        exit 0
    """,
    "systemctl": """
        [ -f "$STATE/systemd" ] || { echo "System has not been booted with systemd" >&2; exit 1; }
        read -r active enabled <"$STATE/unit" 2>/dev/null || { active=inactive; enabled=disabled; }
        case "$1" in
          show-environment) exit 0 ;;
          is-active) echo "$active" ;;
          is-enabled) echo "$enabled" ;;
          *) echo "systemctl $*" >>"$STATE/calls" ;;
        esac
    """,
    # $STATE/nginx: "dav" for a build with the WebDAV module, "plain" for one without, absent for none.
    "nginx": """
        [ -f "$STATE/nginx" ] || exit 127
        [ "$(cat "$STATE/nginx")" = dav ] && extra=" --with-http_dav_module" || extra=""
        echo "configure arguments: --prefix=/usr/share/nginx$extra" >&2
    """,
    "id": "echo 0",
}


class InstallStep(unittest.TestCase):
    def machine(self, installed=(), nginx=None, unit=None, systemd=True):
        state = tempfile.mkdtemp(prefix="wc-install-")
        self.addCleanup(subprocess.run, ["rm", "-rf", state])
        bin_dir = os.path.join(state, "bin")
        os.mkdir(bin_dir)
        for name, body in STUBS.items():
            path = os.path.join(bin_dir, name)
            with open(path, "w") as f:
                f.write("#!/bin/bash\n" + textwrap.dedent(body))
            os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR)
        with open(os.path.join(state, "installed"), "w") as f:
            f.write("".join(p + "\n" for p in installed))
        if nginx:
            with open(os.path.join(state, "nginx"), "w") as f:
                f.write(nginx)
        if unit:
            with open(os.path.join(state, "unit"), "w") as f:
                f.write(unit + "\n")
        if systemd:
            open(os.path.join(state, "systemd"), "w").close()
        return state

    def ensure(self, state, *packages):
        env = dict(os.environ, STATE=state, PATH=os.path.join(state, "bin") + ":/usr/bin:/bin")
        run = subprocess.run([ENSURE, *packages], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        calls = os.path.join(state, "calls")
        return open(calls).read().splitlines() if os.path.exists(calls) else []

    def test_an_operators_serving_nginx_is_left_running_and_enabled(self):
        # The nginx package alone, serving: it has WebDAV, so nginx-light is not needed.
        state = self.machine(installed=["nginx", "dnsmasq-base"], nginx="dav", unit="active enabled")
        self.assertEqual(self.ensure(state, "dnsmasq-base", "nginx-light"), [])
        # A build without WebDAV gets nginx-light, and the service that ran before is not touched.
        state = self.machine(installed=["nginx"], nginx="plain", unit="active enabled")
        calls = self.ensure(state, "nginx-light")
        self.assertIn("nginx-light", calls[-1])
        self.assertFalse([c for c in calls if c.startswith("systemctl")], calls)

    def test_a_server_the_install_started_is_stopped_and_disabled_again(self):
        state = self.machine()
        calls = self.ensure(state, "dnsmasq-base", "nginx-light")
        self.assertTrue(any(c.startswith("apt-get install") and "dnsmasq-base nginx-light" in c for c in calls))
        self.assertEqual([c for c in calls if c.startswith("systemctl")], ["systemctl stop nginx",
                                                                           "systemctl disable nginx"])
        # Without systemd nothing starts, and nothing is asked of it.
        state = self.machine(systemd=False)
        calls = self.ensure(state, "nginx-light")
        self.assertFalse([c for c in calls if c.startswith("systemctl")], calls)

    def test_installed_packages_are_not_installed_again(self):
        state = self.machine(installed=["mtools", "tmux"])
        self.assertEqual(self.ensure(state, "mtools", "tmux"), [])
        calls = self.ensure(state, "mtools", "ovmf")
        self.assertEqual(calls[-1].split()[-1], "ovmf")
        self.assertNotIn("mtools", calls[-1])


if __name__ == "__main__":
    unittest.main()
