// The memory module arrives with its own change.
