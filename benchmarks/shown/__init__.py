"""The page that tells what was measured."""
