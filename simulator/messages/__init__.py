"""Bytes: the layout of every message, its description, HTTP, and the sockets and certificates that carry them."""
