/* How a sleeping reader of a shared table is woken, for a model checker: the writer publishes, then
   looks whether the reader is armed; the reader arms, then looks again whether there is something
   new, then sleeps. All steps are sequentially consistent, as are the atomics that they stand for.

   `event` is the reader's bell: it takes all wake-ups at once. Checked: when nothing moves
   any more, the reader has seen the writer's last change.

   With -DNO_RECHECK the reader sleeps without looking again: then the check must fail. */

#ifndef CHANGES
#define CHANGES 4
#endif

byte head = 0;     /* the latest change */
byte armed = 0;    /* the reader sleeps, or is about to */
byte event = 0;    /* wake-ups that were not taken yet */
byte cursor = 0;   /* the latest change that the reader has seen */
bool written = false;

active proctype Writer() {
  byte wasArmed;
  do
  :: head < CHANGES ->
    head = head + 1;               /* publish */
    if
    :: armed != 0 ->               /* only then the exchange, which costs more */
      atomic { wasArmed = armed; armed = 0 };
      if
      :: wasArmed != 0 -> event = event + 1
      :: else
      fi
    :: else
    fi
  :: else -> break
  od;
  written = true
}

active proctype Reader() {
catchUp:
  cursor = head;
  armed = 1;                       /* arm */
#ifndef NO_RECHECK
  if
  :: head != cursor ->             /* look again */
    armed = 0;
    goto catchUp
  :: else
  fi;
#endif
end_sleep:
  atomic { event > 0 -> event = 0 };
  goto catchUp
}

/* Whoever looks when nothing moves any more. */
active proctype Observer() {
  (written && event == 0) -> skip;
end_observed:
  atomic { timeout -> assert(cursor == CHANGES) }
}
