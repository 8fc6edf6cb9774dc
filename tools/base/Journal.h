// Messages in the journal of systemd.
#pragma once

// If standard error leads to the journal, as JOURNAL_STREAM says, makes every line that is written
// to stderr an error there: "<3>" before it, which the journal removes. Elsewhere nothing changes.
// Call it once, before anything is written.
void MarkErrors();
