#pragma once

namespace featurehost {

/** From now on the calling process is the host. Called once, where the run's process begins. */
void AdoptProcess();

/**
 * End this process at once when it is not the host but a copy that the module forked.
 *
 * A child of the module whose exec failed goes on in its caller's code and would run a second
 * update beside the first. It is caught where it enters the host, before it can write anything.
 */
void EndClone();

}  // namespace featurehost
