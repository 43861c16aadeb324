"""Debian trees that boot: one with the programs that an installation of ours needs, and a fresh one without."""

from debian_tree import DEBS_IN, DEBS_OUT, Recipe, debian_tree

PACKAGES = (
    # the system
    "systemd systemd-sysv dbus util-linux procps "
    # what our programs are linked with and what they run
    "libexpat1 libplist3 libmicrohttpd12 libunistring2 libsystemd0 libmnl0 libminiupnpc17 libnatpmp1 libuser1 libsqlite3-0 libssl3 libyaml-cpp0.7 openssl sqlite3 python3 "
    "adduser passwd iproute2 nftables jabberd2 sasl2-bin libervia-pubsub postgresql-15 "
    # what tests look with
    "acl bsdutils"
).split()
# Services of the packages that are not ours to have, and what only costs time at every boot.
MASKED_SERVICES = (
    "jabberd.service jabberd-router.service jabberd-sm.service jabberd-c2s.service jabberd-s2s.service "
    "saslauthd.service libervia-pubsub.service postgresql.service postgresql@.service prosody.service"
).split()
MASKED_SYSTEM = (
    "console-getty.service getty.target apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer e2scrub_all.timer "
    "e2scrub_reap.service systemd-logind.service systemd-logind.socket systemd-modules-load.service"
).split()

# What a fresh Debian has at the least; apt fetches the rest from a directory of packages in the tree.
FRESH_PACKAGES = "systemd systemd-sysv dbus util-linux procps iproute2 apt ca-certificates bsdutils".split()
FRESH_REPOSITORY = "/srv/debian"
# What our packages depend on, and tests look with.
_DEPENDENCIES = (
    "jabberd2 libervia-pubsub postgresql python3 sasl2-bin sqlite3 nftables openssl libbsd0 libcrypt1 libexpat1 "
    "libmicrohttpd12 libminiupnpc17 libmnl0 libnatpmp1 libplist3 libsqlite3-0 libssl3 libstdc++6 libsystemd0 libunistring2 "
    "libuser1 libyaml-cpp0.7 zlib1g "
    "curl go-sendxmpp"
)

# Run by mmdebstrap; "$1" is the tree. A cluster of PostgreSQL's own would start with every machine.
_BEFORE = f"""
mkdir -p "$1/etc/postgresql-common/createcluster.d" "$1/var/cache/apt/archives/partial"
echo create_main_cluster = false >"$1/etc/postgresql-common/createcluster.d/tessardd.conf"
{DEBS_IN}
"""
# A known machine id: without one, systemd takes every boot for the first and enables all units.
_BOOTS = """chroot "$1" systemctl set-default multi-user.target
chroot "$1" systemd-machine-id-setup"""
_AFTER = f"""
{DEBS_OUT}
chroot "$1" systemctl mask {' '.join(MASKED_SERVICES + MASKED_SYSTEM)}
{_BOOTS}
rm -f "$1/etc/hostname" "$1/etc/resolv.conf" "$1/etc/postgresql-common/createcluster.d/tessardd.conf"
: >"$1/etc/resolv.conf"
"""

_FRESH_BEFORE = f"""
mkdir -p "$1/var/cache/apt/archives/partial"
{DEBS_IN}
"""
_FRESH_AFTER = f"""
APT_CONFIG="$MMDEBSTRAP_APT_CONFIG" apt-get -q -y --no-install-recommends --download-only install {_DEPENDENCIES}
{DEBS_OUT}
mkdir -p "$1{FRESH_REPOSITORY}"
mv "$1"/var/cache/apt/archives/*.deb "$1{FRESH_REPOSITORY}"
cd "$1{FRESH_REPOSITORY}" && dpkg-scanpackages --multiversion . >Packages
cd /
rm -f "$1"/etc/apt/sources.list "$1"/etc/apt/sources.list.d/*
echo 'deb [trusted=yes] file:{FRESH_REPOSITORY} ./' >"$1/etc/apt/sources.list"
chroot "$1" systemctl mask {' '.join(MASKED_SYSTEM)}
{_BOOTS}
rm -f "$1/etc/hostname" "$1/etc/resolv.conf"
: >"$1/etc/resolv.conf"
"""


def systemd_tree(say=lambda sentence: None):
    """Its directory, made now when there is none yet; see `debian_tree`."""
    return debian_tree(Recipe(PACKAGES, _BEFORE, _AFTER), "systemd", say)


def fresh_tree(say=lambda sentence: None):
    """A Debian as its installer leaves it, with a repository of what our packages need, so that apt works without a
    network. Its directory; see `debian_tree`."""
    return debian_tree(Recipe(FRESH_PACKAGES, _FRESH_BEFORE, _FRESH_AFTER, debs="debs-fresh"), "systemd and no more", say)
