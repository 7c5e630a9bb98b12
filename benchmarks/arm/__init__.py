"""The camera's processor, 32-bit ARM: instructions as an emulator counts them."""
