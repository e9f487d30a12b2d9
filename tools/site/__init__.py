"""The documentation as a site: `__main__` builds it, `offline_search.js` lets its search run from file://."""
