"""What goes wrong in the simulated camera itself."""


class CameraError(Exception):
    """The simulated camera cannot do what it was asked; the text says why and, where it helps, what to do."""
