"""Access by name to the registers of a board's chips, to its agent, and to the agent's tables.

RegisterMap and check_map() are about maps, Device and RegisterHandle about registers on a bus, and
Table about what the agent keeps in shared memory; Agent and AsyncAgent ask it.

Objects may be used on any thread: calls of the library take turns, one that waits gives its turn
away, and lets other threads of Python run.
"""

from ._core import Device, Register, RegisterHandle, RegisterMap, check_map, state_directory
from ._core import __version__
from .agent import Agent, AsyncAgent
from .errors import (AgentError, AgentGone, AgentProtocolError, AgentRefusal, AgentTimeout,
                     DamagedTableError, KoruError, RegisterMapError, TableError, TransportError)
from .problems import MapProblem
from .results import (Chip, ChipEvent, ChipRegister, Counter, DriftEvent, EntityName, Event, Field,
                      FieldChange, FieldEvent, HardwareRegister, LogicalRegister, OtherEvent,
                      RegisterChange, RegisterValue, ResetEvent, Value, Written)
from .tables import Change, FieldKey, Table
from .transport import Transport

__all__ = [
    "Agent", "AgentError", "AgentGone", "AgentProtocolError", "AgentRefusal", "AgentTimeout",
    "AsyncAgent", "Change", "Chip", "ChipEvent", "ChipRegister", "Counter", "DamagedTableError",
    "Device", "DriftEvent", "EntityName", "Event", "Field", "FieldChange", "FieldEvent",
    "FieldKey", "HardwareRegister", "KoruError", "LogicalRegister", "MapProblem", "OtherEvent",
    "Register", "RegisterChange", "RegisterHandle", "RegisterMap", "RegisterMapError",
    "RegisterValue", "ResetEvent", "Table", "TableError", "Transport", "TransportError",
    "Value", "Written", "__version__", "check_map", "state_directory",
]
