# A terminal's page has no end, but groff counts pages even so, and a table that runs over the end of one is torn there
# with a warning. Room is asked for before each table; on paper, where a page has an end, tables are as they were.
/^\.TS$/i .if n .ne 1000v
