"""Where the publish-subscribe service keeps what it needs, and as whom it runs."""

# A number, not a name: the account need not have a name to own files.
ACCOUNT = 84

SETTINGS = "/Library/Preferences/com.velto.Beaconry.plist"
PID_FILE = "/var/run/Beaconry.pid"
LOCK = "/run/Beaconry.lock"

# Root and the account alone can enter it, and so reach the database server's socket, which asks nobody for a
# password.
DATA = "/var/lib/tessard-pubsub"
CLUSTER = f"{DATA}/cluster"
NEW_CLUSTER = f"{DATA}/cluster.new"
SOCKETS = f"{DATA}/socket"
# The first role of the cluster, which owns what the component must not touch.
CLUSTER_OWNER = "tessard_owner"

LOG_DIRECTORY = "/var/log/idavoll"
ERROR_LOG = f"{LOG_DIRECTORY}/error.log"

# The administration daemon removes it when the host has got another name, and what was published goes with it.
MARKER = "/var/db/idavoll/pubsub.db"

# Debian's package libervia-pubsub.
COMPONENT = "/usr/share/libervia"
SCHEMA = f"{COMPONENT}/sat_pubsub/db/pubsub.sql"

# Exit statuses; the service managers' files know these numbers.
STOPPED = 0
WRONG_USE = 64        # EX_USAGE
START_FAILED = 69     # EX_UNAVAILABLE: starting again would fail again
SYSTEM_REFUSED = 71   # EX_OSERR
LOST_PART = 75        # EX_TEMPFAIL: start again
NO_ROOT = 77          # EX_NOPERM
BAD_SETTINGS = 78     # EX_CONFIG
