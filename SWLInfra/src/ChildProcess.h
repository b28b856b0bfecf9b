#pragma once

#include <sys/types.h>

/**
 * fork(2) for a child that will exec a tool.
 *
 * The child begins with every signal at its default disposition and an empty signal mask, whatever
 * the host has set for itself, and no signal reaches it in between. The host's own
 * dispositions and mask are as before when the call returns in the parent.
 *
 * @return as fork: 0 in the child, its id in the parent, -1 when there is no child.
 */
pid_t ForkWithDefaultSignals();

/**
 * Make a descriptor the child's standard input, output or error. For the child branch.
 *
 * @return false when it cannot be duplicated.
 */
bool MoveOntoStandard(int descriptor, int standardDescriptor);

/** Wait for a child to end, however often signals interrupt. The result is waitpid's. */
pid_t WaitForEnd(pid_t child, int& status);

/**
 * Whether a signal sent now would end a child by its default action: the program neither catches
 * nor ignores it, or has not even been executed. False where the kernel does not tell.
 */
bool WouldDieOf(pid_t child, int signal);

/** Close a descriptor, if it is one (not -1), and forget it. */
void CloseEnd(int& descriptor);
