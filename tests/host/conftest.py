from hostfixtures import daemon, makeDaemon, plugin, pluginRoot, root

__all__ = ["daemon", "makeDaemon", "plugin", "pluginRoot", "root"]
