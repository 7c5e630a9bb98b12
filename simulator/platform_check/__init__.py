"""The test kit for who builds a platform: whether cameras can fetch from it, check by check."""
