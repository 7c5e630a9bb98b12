"""Everything that the peers can do wrong: declared with its effect, found by its name, switched while they run."""

from simulator.faults.fault import PEERS, Fault, FaultError, Order, suggestion
from simulator.faults.table import FAULTS, find, from_document, parse

__all__ = ["FAULTS", "PEERS", "Fault", "FaultError", "Order", "find", "from_document", "parse", "suggestion"]
