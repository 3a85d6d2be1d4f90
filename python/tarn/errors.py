"""Exceptions of the tarn package."""


class Error(Exception):
    """A request the library could not carry out."""


class ParseError(Error):
    """A DBC text that could not be read; `line` is the 1-based line number of
    the problem when it is tied to a line, else None."""

    def __init__(self, message, line=None):
        super().__init__(message)
        self.line = line


class DecodeError(Error):
    """A frame that cannot be decoded: unknown identifier or short payload."""


class EncodeError(Error):
    """Values that cannot be encoded; `signal` names the offending signal
    when one is to blame."""

    def __init__(self, message, signal=None):
        super().__init__(message)
        self.signal = signal
