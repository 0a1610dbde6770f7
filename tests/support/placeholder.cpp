// Shared test helpers are added here as the suites need them.
