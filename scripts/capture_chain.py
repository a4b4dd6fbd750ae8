"""Whether the functions that capture a stack keep their frame records, read from their code.

The walk starts at BacktraceGet's own frame and leaves out three levels. It is right only when the
entry, PointerData::Add, PointerData::AddBacktrace and BacktraceGet are one frame each: every one of
them has stored the pair x29, x30 and pointed x29 at it before it calls the next, and calls it (`bl`,
or `blr` with an address from the global offset table) instead of jumping to it (`b`, `br`), which
would give its frame away. An entry may jump to its body.
"""

import collections

import elf64

ENTRIES = ("track_malloc", "track_calloc", "track_realloc", "track_memalign",
           "track_aligned_alloc", "track_posix_memalign")
# Mangled up to their arguments, which name the C++ library.
CHAIN = (("PointerData::Add", "_ZN11PointerData3AddE"),
         ("PointerData::AddBacktrace", "_ZN11PointerData12AddBacktraceE"),
         ("BacktraceGet", "_Z12BacktraceGet"))

# What of a frame record is there: the pair's place above sp, "record" once x29 points at it.
NONE = None
RECORD = "record"
Call = collections.namedtuple("Call", "address target link frame")


def signed(value, bits):
    return value - (1 << bits) if value >> (bits - 1) else value


def branch_target(address, word):
    """Where a direct branch leads, whether it may fall through and whether it links."""
    if word >> 26 in (0x05, 0x25):
        return address + 4 * signed(word & 0x3FFFFFF, 26), word >> 31 == 1, word >> 31 == 1
    if word >> 24 == 0x54 or word & 0x7E000000 == 0x34000000:  # b.cond, cbz, cbnz
        return address + 4 * signed(word >> 5 & 0x7FFFF, 19), True, False
    if word & 0x7E000000 == 0x36000000:  # tbz, tbnz
        return address + 4 * signed(word >> 5 & 0x3FFF, 14), True, False
    return None


def next_frame(frame, word):
    """The state of the frame record behind an instruction that is no branch."""
    pair = word & 0xFFC07FFF
    place = 8 * signed(word >> 15 & 0x7F, 7)
    if pair == 0xA9807BFD:  # stp x29, x30, [sp, #-N]!
        return 0
    if pair == 0xA9007BFD:  # stp x29, x30, [sp, #N]
        return place
    if pair in (0xA8C07BFD, 0xA9407BFD):  # ldp x29, x30, [sp], #N and [sp, #N]
        return NONE
    amount = (word >> 10 & 0xFFF) << (12 if word >> 22 & 1 else 0)
    if word & 0xFF8003FF == 0x910003FD:  # add x29, sp, #N, which mov x29, sp is too
        return RECORD if frame == amount else NONE
    if word & 0xFF8003FF == 0xD10003FF and isinstance(frame, int):  # sub sp, sp, #N
        return frame + amount
    return frame


def loaded_address(elf, words, start, index):
    """The address that the register of a blr or br at `index` was last given from the global offset
    table, or by adrp and add; None when it is another or comes from elsewhere."""
    register = words[index] >> 5 & 31
    offset, from_table = None, False
    for back in range(index - 1, -1, -1):
        word = words[back]
        if word & 31 != register:
            continue
        if word & 0xFFE0FFE0 == 0xAA0003E0:  # mov
            register = word >> 16 & 31
        elif offset is None and word & 0xFFC00000 in (0xF9400000, 0x91000000):  # ldr, add
            from_table = word >> 22 == 0xF9400000 >> 22
            offset = (word >> 10 & 0xFFF) * (8 if from_table else 1)
            register = word >> 5 & 31
        elif offset is not None and word & 0x9F000000 == 0x90000000:  # adrp
            pages = signed((word >> 5 & 0x7FFFF) << 2 | word >> 29 & 3, 21)
            address = (start + 4 * back & ~0xFFF) + (pages << 12) + offset
            return elf.relative.get(address) if from_table else address
    return None


def words_of(elf, function):
    """The instructions of a function.

    A linker that works around erratum 843419 of the Cortex-A53 moves a load or store to a thunk
    outside the function: the instruction and a jump back. Such an instruction is put back.
    """
    words = list(elf.words(function.value, function.size))
    for index, word in enumerate(words):
        address = function.value + 4 * index
        if word >> 26 != 0x05:  # b
            continue
        thunk = branch_target(address, word)[0]
        if 0 <= thunk - function.value < function.size:
            continue
        moved, back = elf.words(thunk, 8)
        if (moved & 0x3B000000 == 0x39000000  # load or store with an unsigned offset
                and back >> 26 == 0x05 and branch_target(thunk + 4, back)[0] == address + 4):
            words[index] = moved
    return words


def calls_of(elf, function):
    """The calls in a function and the direct jumps out of it, with the frame record there.

    Follows every path from the entry; where paths meet with different states, there is none.
    """
    words = words_of(elf, function)
    states, work, calls = {}, [(function.value, NONE)], {}
    while work:
        address, frame = work.pop()
        if not 0 <= address - function.value < function.size:
            continue
        if address in states:
            frame = frame if frame == states[address] else NONE
            if frame == states[address]:
                continue
        states[address] = frame
        word = words[(address - function.value) // 4]
        direct = branch_target(address, word)
        if direct:
            target, falls_through, link = direct
            if link or not 0 <= target - function.value < function.size:
                calls[address] = Call(address, target, link, frame)
            else:
                work.append((target, frame))
            if falls_through:
                work.append((address + 4, frame))
        elif word & 0xFE9F0000 != 0xD61F0000:  # not br, blr, ret or a signed form of them
            work.append((address + 4, next_frame(frame, word)))
        elif word >> 21 & 3 != 2:  # not ret
            link = word >> 21 & 3 == 1
            target = loaded_address(elf, words, function.value,
                                    (address - function.value) // 4)
            calls[address] = Call(address, target, link, frame)
            if link:
                work.append((address + 4, frame))
    return calls.values()


def bodies_of(elf, entry, by_address):
    """An entry and the functions that it jumps to, and they in turn."""
    found, work = [], [entry]
    while work:
        function = work.pop()
        if function not in found:
            found.append(function)
            work += [by_address[call.target] for call in calls_of(elf, function)
                     if not call.link and call.target in by_address]
    return found


def link_faults(elf, name, callers, next_name, target):
    calls = [call for caller in callers for call in calls_of(elf, caller)]
    if any(call.target == target and not call.link for call in calls):
        yield f"{name} jumps to {next_name} instead of calling it: its own frame is gone by then"
        return
    reached = [call for call in calls if call.target == target and call.link]
    if not reached:
        yield f"{name} does not call {next_name}: the walk would leave out the wrong levels"
    elif any(call.frame != RECORD for call in reached):
        yield f"{name} calls {next_name} without a frame record of its own"


def faults(elf):
    """One line for each break of the chain. Needs the symbols of an unstripped file."""
    functions = [symbol for symbol in elf.symbols(elf64.SHT_SYMTAB)
                 if symbol.type == elf64.STT_FUNC and symbol.size]
    by_address = {function.value: function for function in functions}
    links = []
    for name, mangled in CHAIN:
        found = [function for function in functions
                 if function.name.startswith(mangled) and "." not in function.name]
        if len(found) != 1:
            yield f"{name} is not in the file as one function of its own"
            return
        links.append((name, found[0]))
    for name in ENTRIES:
        entry = next((function for function in functions if function.name == name), None)
        if entry is None:
            yield f"{name} is not in the file"
        else:
            callers = [body for body in bodies_of(elf, entry, by_address)
                       if body.value != links[0][1].value]
            yield from link_faults(elf, name, callers, links[0][0], links[0][1].value)
    for (name, function), (next_name, following) in zip(links, links[1:]):
        yield from link_faults(elf, name, [function], next_name, following.value)
    name, last = links[-1]
    calls = [call for call in calls_of(elf, last) if call.link]
    if not calls or any(call.frame != RECORD for call in calls):
        yield f"{name} calls on without a frame record of its own"
