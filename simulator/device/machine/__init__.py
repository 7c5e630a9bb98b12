"""A camera that boots: its own kernel and systemd under full emulation, with the simulator's processes around it."""
