// Lists of slots from a fixed pool, linked through a member of the slot: the
// request server's free and busy service threads, and the controller's free
// and queued jobs. A slot is on at most one list of its pool at a time; it
// is found on a list by identity. `next` names the slot's link member.
#pragma once

// Takes the head off the list; null when the list is empty.
template <typename Slot>
Slot* wifim_slot_list_take(Slot** head, Slot* Slot::*next) {
    Slot* slot = *head;
    if (slot != nullptr) {
        *head = slot->*next;
        slot->*next = nullptr;
    }
    return slot;
}

// Puts the slot at the head of the list.
template <typename Slot>
void wifim_slot_list_push(Slot** head, Slot* slot, Slot* Slot::*next) {
    slot->*next = *head;
    *head = slot;
}

template <typename Slot>
bool wifim_slot_list_holds(const Slot* head, const Slot* slot, Slot* Slot::*next) {
    for (const Slot* cur = head; cur != nullptr; cur = cur->*next) {
        if (cur == slot) {
            return true;
        }
    }
    return false;
}

// Unlinks the slot; a slot that is not on the list changes nothing.
template <typename Slot>
void wifim_slot_list_unlink(Slot** head, const Slot* slot, Slot* Slot::*next) {
    for (Slot** link = head; *link != nullptr; link = &((*link)->*next)) {
        if (*link == slot) {
            *link = slot->*next;
            return;
        }
    }
}

// Inserts the slot before the first slot on the list that it goes before
// (goes_before(other) is true), else at the tail. The last slot of a list of
// two or more is never looked at, so a slot that found no place before it
// goes after it; a lone slot is looked at only with examine_lone_slot. Both
// pools have always ordered their lists this way, and the order in which
// jobs run and service threads are reused depends on it.
template <typename Slot, typename GoesBefore>
void wifim_slot_list_insert(Slot** head, Slot* slot, Slot* Slot::*next, GoesBefore goes_before,
                            bool examine_lone_slot) {
    slot->*next = nullptr;
    Slot** link = head;
    while (*link != nullptr) {
        Slot* cur = *link;
        bool last = cur->*next == nullptr;
        bool lone = last && link == head;
        if ((!last || (lone && examine_lone_slot)) && goes_before(*cur)) {
            slot->*next = cur;
            *link = slot;
            return;
        }
        link = &(cur->*next);
    }
    *link = slot;
}

// Puts the slot at the tail of the list.
template <typename Slot>
void wifim_slot_list_append(Slot** head, Slot* slot, Slot* Slot::*next) {
    wifim_slot_list_insert(
        head, slot, next, [](const Slot&) { return false; }, false);
}
