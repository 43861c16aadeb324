"""The component's process, as the account: reads the settings, sets the database up, joins the router and stays.

Usage: component.py DESCRIPTOR. On that descriptor it says, one word on a line, how far it has come: "settings"
(they can be used), "store" (the database is ready, and the router is called from now on), "accepted" (the router
has accepted it; once). It ends with a status of places.py after it has said why.
"""

import logging
import os
import re
import signal
import sys
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import places  # noqa: E402
from settings import SettingsProblem, read_settings  # noqa: E402
from words import Say  # noqa: E402

# Between two calls of the router, which may be away for some seconds while jabberd starts again.
_LONGEST_DELAY_SECONDS = 1


class Component:
    def __init__(self, tell, say):
        self._tell = tell
        self._say = say
        self._settings = None
        self._status = places.LOST_PART  # unless somebody says otherwise before the end
        self._accepted = False
        self._joined = False
        self._told_away = False

    def run(self):
        """Returns the exit status."""
        try:
            self._settings = read_settings(places.SETTINGS)
        except SettingsProblem as problem:
            return self._refuse(places.BAD_SETTINGS, problem)
        for secret in (self._settings.secret, self._settings.password):
            self._say.hide(secret)
        for warning in self._settings.warnings:
            self._say.error(warning)
        self._tell("settings")
        sys.path.append(places.COMPONENT)
        try:
            import store
            import twisted.plugins.pubsub as plugin
            # In its own order: the storage, imported first, takes back what the package changes in its library.
            import sat_pubsub.backend  # noqa: F401
            from sat_pubsub.pgsql_storage import CURRENT_VERSION
        except ImportError as problem:
            return self._refuse(places.START_FAILED, f"install the package libervia-pubsub ({problem})")
        try:
            options = self._options(plugin)
        except SettingsProblem as problem:
            return self._refuse(places.BAD_SETTINGS, problem)
        try:
            store.open_store(self._settings, CURRENT_VERSION, self._marker(store), self._say)
        except store.StoreProblem as problem:
            return self._refuse(places.BAD_SETTINGS, problem)
        except (store.psycopg2.Error, OSError) as problem:
            return self._refuse(places.START_FAILED, f"the database cannot be set up: {problem}")
        return self._serve(plugin, options)

    def _refuse(self, status, problem):
        self._say.error(f"Nothing is started: {problem}.")
        return status

    @staticmethod
    def _marker(store):
        try:
            return store.marker_identity()
        except OSError as problem:
            return problem

    def _options(self, plugin):
        """Set one by one rather than as words of a command line, which the secret must not be in."""
        from twisted.words.protocols.jabber.jid import JID, InvalidFormat
        settings = self._settings
        try:
            address = JID(settings.address)
            privileged = [JID(each).userhostJID() for each in settings.privileged]
        except (InvalidFormat, UnicodeError) as problem:
            raise SettingsProblem(f"an address cannot be used: {problem}") from None
        options = plugin.SatPubsubMaker().options()
        options.update({
            "jid": address, "xmpp_pwd": settings.secret, "admins_jids_list": privileged,
            "rhost": settings.router_host, "rport": settings.router_port, "backend": "pgsql",
            "db_host": places.SOCKETS, "db_port": "5432", "db_name": settings.database, "db_user": settings.user,
            "db_pass": settings.password, "verbose": settings.verbose, "hide-nodes": settings.hide_nodes,
        })
        return options

    def _serve(self, plugin, options):
        from twisted.internet import reactor
        from twisted.python import log
        from twisted.words.protocols.jabber import xmlstream
        log.startLoggingWithObserver(self._observe, setStdout=False)
        logging.basicConfig(format="%(message)s", handlers=[_ErrorsToLog(self._say)], level=logging.WARNING)
        service = plugin.SatPubsubMaker().makeService(options)
        factory = service.getServiceNamed("component").factory
        factory.maxDelay = _LONGEST_DELAY_SECONDS
        factory.noisy = False
        for event, action in ((xmlstream.STREAM_AUTHD_EVENT, self._on_accepted),
                              (xmlstream.STREAM_ERROR_EVENT, lambda failure: self._on_error(reactor, failure)),
                              (xmlstream.STREAM_END_EVENT, self._on_end)):
            factory.addBootstrap(event, action)

        def stop(*_):
            self._status = places.STOPPED
            reactor.callFromThread(reactor.stop)
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(number, stop)
        reactor.addSystemEventTrigger("before", "shutdown", service.stopService)
        service.startService()
        self._tell("store")
        reactor.run(installSignalHandlers=False)
        return self._status

    # --- the router --------------------------------------------------------------------------------------------

    def _on_accepted(self, _):
        self._joined = True
        self._told_away = False
        self._say.info(f"The router has accepted {self._settings.address}.")
        if not self._accepted:
            self._accepted = True
            self._tell("accepted")

    def _on_error(self, reactor, failure):
        condition = getattr(failure.value, "condition", str(failure.value))
        if self._joined or condition != "not-authorized":
            self._say.error(f"The router ends the connection: {condition}.")
            return
        self._say.error('The router refuses the "secret" of the settings, which must be its "local.secret".')
        # What was right until now may have changed in the file too; what was never right is hardly so the next time.
        self._status = places.LOST_PART if self._accepted else places.BAD_SETTINGS
        reactor.stop()

    def _on_end(self, _):
        if not self._told_away and self._status != places.STOPPED:
            self._told_away = True
            self._say.info("The connection to the router has ended; it is called again until it answers.")
        self._joined = False

    # --- the component's own words --------------------------------------------------------------------------------

    def _observe(self, event):
        from twisted.python import log
        text = log.textFromEventDict(event)
        if not text:
            return
        # A digest of the secret with what went over the line before it, open to guessing.
        text = re.sub(r"<handshake[^>]*>[^<]*", "<handshake>********", text)
        if event.get("isError"):
            self._say.error(text)
        elif self._settings.verbose:
            self._say.detail(text)


class _ErrorsToLog(logging.Handler):
    def __init__(self, say):
        super().__init__()
        self._say = say

    def emit(self, record):
        (self._say.error if record.levelno >= logging.ERROR else self._say.detail)(self.format(record))


def main():
    descriptor = int(sys.argv[1])
    os.set_inheritable(descriptor, False)

    def tell(word):
        os.write(descriptor, f"{word}\n".encode())
    say = Say("component")
    try:
        return Component(tell, say).run()
    except Exception:
        say.error(f"An error that was not foreseen:\n{traceback.format_exc()}")
        return places.LOST_PART


sys.exit(main())
