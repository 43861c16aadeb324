"""Two other servers' answers to the question how they are: ejabberd's over HTTP, and prosodyctl's. Both run from the
tree of other programs, which they see through an overlay, in namespaces of their own with nothing but loopback."""

import subprocess
import tempfile
import time
from pathlib import Path

from report import READING
from runs import Sample
from works import Variant

EJABBERD_KEPT, EJABBERD_ANEW, PROSODYCTL = "ejabberd, kept connection", "ejabberd, a connection each", "prosodyctl status"
_PATIENCE = 60
_EJABBERD = """\
hosts: [localhost]
loglevel: error
listen:
  - port: 5280
    ip: "127.0.0.1"
    module: ejabberd_http
    request_handlers:
      /api: mod_http_api
api_permissions:
  "from this machine":
    who:
      - ip: 127.0.0.1/8
    what:
      - status
modules: {}
"""
_PROSODY = """\
pidfile = "/run/prosody/prosody.pid"
modules_enabled = { "disco", "roster", "saslauth", "posix" }
interfaces = { "127.0.0.1" }
log = { error = "/dev/null" }
VirtualHost "localhost"
"""
# Run in new namespaces; "$1" is a directory with "upper", "work" and "root", "$2" the tree. Nothing is mounted that
# is anybody else's, and all mounts end with the namespace.
_START = """
set -e
mount -t overlay overlay -o "lowerdir=$2,upperdir=$1/upper,workdir=$1/work" "$1/root"
mount -t proc proc "$1/root/proc"
mount -t tmpfs -o mode=755 tmpfs "$1/root/dev"
for device in null:3 zero:5 full:7 random:8 urandom:9; do
  mknod -m 666 "$1/root/dev/${device%:*}" c 1 "${device#*:}"
done
ln -s /proc/self/fd "$1/root/dev/fd"
ip link set lo up
exec chroot "$1/root" /bin/sh -c '
  install -d -o prosody -g prosody /run/prosody
  install -d -o ejabberd -g ejabberd /run/ejabberd
  setpriv --reuid prosody --regid prosody --init-groups env HOME=/var/lib/prosody prosody -F >/dev/null 2>&1 &
  exec ejabberdctl foreground >/dev/null 2>&1'
"""


class Servers:
    """Both servers, running from entry to exit. For root alone."""

    def __init__(self, tools, tree):
        self._tools = tools
        self._tree = tree

    def __enter__(self):
        self._base = Path(tempfile.mkdtemp(prefix="tessard-bench-", dir="/dev/shm"))
        self._base.chmod(0o755)
        for name in ("work", "root", "upper/etc/ejabberd", "upper/etc/prosody"):
            (self._base / name).mkdir(mode=0o755, parents=True)
        upper = self._base / "upper"
        (upper / "etc/ejabberd/ejabberd.yml").write_text(_EJABBERD)
        (upper / "etc/prosody/prosody.cfg.lua").write_text(_PROSODY)
        (upper / "etc/hosts").write_text("127.0.0.1 localhost\n")
        self._process = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "--net", "--uts", "--ipc", "--pid", "--fork", "--kill-child",
             "/bin/sh", "-c", _START, "sh", self._base, self._tree],
            stdin=subprocess.DEVNULL, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
        try:
            self._await_answers()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        subprocess.run(["rm", "-rf", "--one-file-system", "--", self._base], check=False)

    def _inside(self):
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children").read_text(encoding="ascii").split()
        return ["nsenter", "--target", children[0], "--mount", "--net", "--pid"] if children else None

    def _await_answers(self):
        deadline = time.monotonic() + _PATIENCE
        while True:
            try:
                self._ask_ejabberd()
                self._ask_prosody()
                return
            except (RuntimeError, TypeError):
                if self._process.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError("ejabberd and prosody do not start") from None
                time.sleep(0.2)

    def _ask_ejabberd(self, *options):
        return self._tools.requests("tcp:127.0.0.1:5280", "/api/status", "-", *options, method="GET", inside=self._inside())

    def _ask_prosody(self):
        return self._tools.whole("/usr/sbin/chroot", str(self._base / "root"), "/usr/bin/prosodyctl", "status", inside=self._inside())

    def variants(self, rounds):
        def ejabberd(_tree):
            return [Sample(self._ask_ejabberd("--warm", "5", "--requests", str(rounds), *options))
                    for options in ([], ["--reconnect"])]

        return [Variant([(EJABBERD_KEPT, READING), (EJABBERD_ANEW, READING)], ejabberd),
                Variant([(PROSODYCTL, READING)], lambda _tree: [self._ask_prosody()])]
