"""A Debian tree that boots: systemd, and the programs that an installation of ours needs."""

from debian_tree import DEBS_IN, DEBS_OUT, Recipe, debian_tree

PACKAGES = (
    # the system
    "systemd systemd-sysv dbus util-linux procps "
    # what our programs are linked with and what they run
    "libexpat1 libplist3 libmicrohttpd12 libunistring2 libsystemd0 libmnl0 libminiupnpc17 libnatpmp1 libuser1 libsqlite3-0 libssl3 openssl sqlite3 python3 "
    "adduser passwd iproute2 nftables jabberd2 sasl2-bin libervia-pubsub postgresql-15 "
    # what tests look with
    "acl bsdutils"
).split()
# Services of the packages that are not ours to have, and what only costs time at every boot.
MASKED = (
    "jabberd.service jabberd-router.service jabberd-sm.service jabberd-c2s.service jabberd-s2s.service "
    "saslauthd.service libervia-pubsub.service postgresql.service postgresql@.service prosody.service "
    "console-getty.service getty.target apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer e2scrub_all.timer "
    "e2scrub_reap.service systemd-logind.service systemd-logind.socket systemd-modules-load.service"
).split()

# Run by mmdebstrap; "$1" is the tree. A cluster of PostgreSQL's own would start with every machine.
_BEFORE = f"""
mkdir -p "$1/etc/postgresql-common/createcluster.d" "$1/var/cache/apt/archives/partial"
echo create_main_cluster = false >"$1/etc/postgresql-common/createcluster.d/tessardd.conf"
{DEBS_IN}
"""
# A known machine id: without one, systemd takes every boot for the first and enables all units.
_AFTER = f"""
{DEBS_OUT}
chroot "$1" systemctl mask {' '.join(MASKED)}
chroot "$1" systemctl set-default multi-user.target
chroot "$1" systemd-machine-id-setup
rm -f "$1/etc/hostname" "$1/etc/resolv.conf" "$1/etc/postgresql-common/createcluster.d/tessardd.conf"
: >"$1/etc/resolv.conf"
"""


def systemd_tree(say=lambda sentence: None):
    """Its directory, made now when there is none yet; see `debian_tree`."""
    return debian_tree(Recipe(PACKAGES, _BEFORE, _AFTER), "systemd", say)
