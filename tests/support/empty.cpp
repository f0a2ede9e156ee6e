// Keeps the support library non-empty while it has no fixtures of its own.
