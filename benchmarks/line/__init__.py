"""The line between a camera and its platform: a network of packets that are recorded and delayed."""
