"""What a transport that is written in Python is made of."""

from __future__ import annotations

from abc import ABC, abstractmethod


class Transport(ABC):
    """Registers behind something that Python reaches: a simulator, an instrument of the lab.

        class Multimeter(Transport):
            def read(self, address): ...
            def write(self, address, value): ...

        Device("multimeter.csv", transport=Multimeter())

    The methods are called on the thread that accesses a register, one call at a time for each
    access; they may use other devices, and close this one. An Exception that they raise is the
    reason of the access's TransportError, and its ``__cause__``; an OSError gives it its errno.

    Any object with the two methods will do; this class is for those who like to say so.
    """

    @abstractmethod
    def read(self, address: int) -> int:
        """The value of the register with that number in the map; not wider than the register."""

    @abstractmethod
    def write(self, address: int, value: int) -> None:
        """Give the register that value, which is not wider than the register."""
