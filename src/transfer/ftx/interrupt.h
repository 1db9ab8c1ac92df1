// Work of a worker that keeps its loop waiting for long: reading a source, a prefix, a folder.
#pragma once

struct ftx_entry;

// Whether something waits that ends the transfer in this worker: the end of the agent or of the partner, an order
// to stop, cancel or delete. What is being done is given up then, in a way that neither tells an error nor spoils
// what a later run goes on from; the loop gets to what waits. True stays true. Looks each 100 ms at most.
bool ftx_is_interrupted(ftx_entry* ftx);
