"""What goes wrong, and how a callback refuses."""


class PluginError(Exception):
    """The daemon refused a request, or can not be asked."""

    def __init__(self, message: str, code: int = -1) -> None:
        super().__init__(message)
        self.code = code


class ConnectionLost(PluginError):
    """The connection ended. The plugin connects again by itself; what was going on is void."""


class Reject(Exception):
    """Raised by a callback: refuses the change, or fails the operation. The client sees the message, and the code as
    error-app-tag."""

    def __init__(self, message: str, code: int = -1) -> None:
        if not -(2**31) <= code < 2**31:
            raise ValueError(f"the code {code} has more than 32 bits")
        super().__init__(message)
        self.code = code
