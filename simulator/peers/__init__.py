"""Who the service talks to, each on its own socket."""
