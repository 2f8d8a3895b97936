#pragma once
// Background work that must not take a processor from an extraction or from
// the work the run waits on: the calling thread runs below normal priority.
// The packer's threads compress views while extracta processes run and the
// merge copies pieces; on a machine with fewer spare processors than busy
// threads, the extraction and the merge go first and compression takes what
// is left. Best effort: where the system refuses, the thread runs on as it
// was.
void VeltLowerThisThreadsPriority();
