"""Everything that the peers can do wrong: the table, what each fault does, and switching it."""

from simulator.faults.table import FAULTS, PEERS, Fault, FaultError, Order, find, from_document, parse, suggestion

__all__ = ["FAULTS", "PEERS", "Fault", "FaultError", "Order", "find", "from_document", "parse", "suggestion"]
