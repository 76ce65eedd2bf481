"""What the package raises, beside ValueError for wrong arguments and TimeoutError."""


class Error(Exception):
    """Base of the package's own exceptions."""


class LibraryError(Error):
    """The module cannot be loaded, or could not set up its shared table."""


class TableError(Error):
    """There is no shared table, or the file is none."""


class ChannelError(Error):
    """A channel cannot be started, or does not do its work."""


class ChannelCancelled(ChannelError):
    """The channel was cancelled or closed, or has stopped because it lost the sync byte."""
