"""The ways to somebody's own platform: understood (gateway.py), and byte for byte (relay.py)."""
