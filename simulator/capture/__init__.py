"""Recorded runs as captures for Wireshark and tshark."""
