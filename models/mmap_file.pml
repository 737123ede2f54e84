/* The protocol of the memory-mapped cache file: open, claim, take over, save, move, close, kill.
 * What does what a function of the code does has that function's name, in capitals where it is a
 * macro. Page: docs/design/mmap-file-model.md. scripts/check_model runs it.
 *
 * One step is one store, lock or look that another process, or whoever comes after a kill, can tell
 * from the next one. Before every step a process may be killed: its locks go, what it stored stays.
 * It then starts again, a bounded number of times.
 *
 * A seal is written in two steps, "being written" and "valid": what comes between is under a check
 * and looks like the first. Save numbers only tell which of two valid seals of a record is newer,
 * and which dead owner is older; the model keeps the former and tries every order of the latter.
 * Packets are messages, one bit each. What room holds is kept apart from what seals say, so that
 * zeroed or foreign room is noticed. Room is units; an extent has one or two of them, so that extents
 * at different times overlap in part. How many, its head says, which stands in the first. Further
 * sizes, damage and repair are not modelled.
 */
#ifndef PROCESSES
#define PROCESSES 2
#endif
#ifndef KILLS
#define KILLS 2 /* Of all processes together. */
#endif
#ifndef OPENS
#define OPENS 3 /* Of all processes together. */
#endif
#ifndef SAVES
#define SAVES 1 /* Of each life. */
#endif
#ifndef RECORDS
#define RECORDS 3
#endif
#ifndef EXTENTS
#define EXTENTS 5 /* Units. */
#endif

#define S(r, s) (2 * (r) + (s))
#define BIT(n) (1 << (n))
#define HAS(set, n) (((set) >> (n)) & 1)
#define NOBODY 0
#ifdef CLAIM_ALL /* Else any of them may be left: too many packets, or damaged. */
#define LEAVES_SOME false
#else
#define LEAVES_SOME true
#endif
#define MAY_SETTLE(set) (((set) & ~dead) == 0)

/* --- The file ---------------------------------------------------------------------------------- */
bool valid[2 * RECORDS + 2];  /* Of a seal: its check is right. */
byte mask[2 * RECORDS + 2];   /* Superseded records. */
byte cont[2 * RECORDS + 2];   /* Messages that the index names. */
byte ext[2 * RECORDS + 2];    /* The first unit; 0: none. */
bit newer[RECORDS + 1];       /* The seal of a record that was written last. */
bool sealed[RECORDS + 1];     /* The record was ever used. */
byte reserved[RECORDS + 1];   /* Units. */
byte data[EXTENTS + 2];       /* Messages of which a unit has packets; those of an extent, its first. */
bool there[EXTENTS + 2];      /* Not behind the end of the file. */
byte head;                    /* Units that begin with the head of an extent, */
byte two;                     /* and those whose extent has two units. */
#define DIRTY 128             /* Packets that are of no account, but for a repair. */
#define UNITS_OF(e) ((e) == 0 -> 0 : (BIT(e) | (((two >> (e)) & 1) << ((e) + 1))))

/* --- The kernel -------------------------------------------------------------------------------- */
byte table_lock;
byte record_lock[RECORDS + 1];

/* --- What must be true: known to nobody -------------------------------------------------------- */
byte saved;                  /* In a completed save, and not dropped by its owner since. */
byte held[PROCESSES + 1];    /* What a live owner took at Open() or saved since. */
byte still[PROCESSES + 1];    /* Where the head is still that of the extent that the process left: what
                                the comparison of epochs finds out. */
byte kills = KILLS;
byte begun;                  /* How many processes have opened the file. */
byte opens = OPENS;
hidden byte h_r, h_sup, h_once, h_c, h_x, h_named; /* No state: set before each use. */

/* The seal in force; 2: none. */
#define INF(r) (valid[S(r, newer[r])] -> newer[r] : (valid[S(r, 1 - newer[r])] -> 1 - newer[r] : 2))
#define CONTENT(r) (INF(r) == 2 -> 0 : cont[S(r, INF(r))])

/* What records other than `mine` name, truly. */
inline NamedByOthers(mine) {
  h_named = 0;
  for (h_r : 1 .. RECORDS) {
    if
    :: h_r != mine ->
       h_named = h_named | (valid[S(h_r, 0)] -> UNITS_OF(ext[S(h_r, 0)]) : 0) |
                 (valid[S(h_r, 1)] -> UNITS_OF(ext[S(h_r, 1)]) : 0) | reserved[h_r]
    :: else
    fi
  }
  h_r = 0
}

/* After every store. A reader finds each saved message in exactly one content, and nothing else:
 * what is in a content counts unless a seal in force of another record stands for that content. */
inline Check() {
  d_step {
    h_sup = 0;
    for (h_r : 1 .. RECORDS) {
      if
      :: INF(h_r) != 2 -> h_sup = h_sup | mask[S(h_r, INF(h_r))]
      :: else
      fi
    }
    h_once = 0;
    for (h_r : 1 .. RECORDS) {
      if
      :: INF(h_r) != 2 && !HAS(h_sup, h_r) ->
         h_c = cont[S(h_r, INF(h_r))];
         h_x = ext[S(h_r, INF(h_r))];
         assert((h_c & ~data[h_x]) == 0); /* INTACT: what a seal in force names is whole. */
         assert((h_once & h_c) == 0);     /* ONCE: no message is in two contents. */
         h_once = h_once | h_c
      :: else
      fi
    }
    for (h_r : 1 .. RECORDS) {
      assert(!sealed[h_r] || INF(h_r) != 2) /* NO DAMAGE: a kill leaves a seal in force. */
    }
    assert((saved & ~h_once) == 0); /* NOT LOST */
    assert((h_once & ~saved) == 0); /* NOT BACK: a dropped or unfinished one is found by nobody. */
    /* HEADLESS: packets that no record and no head accounts for come back with a repair. What a head
     * accounts for is of no account: fewer states. */
    NamedByOthers(0);
    for (h_r : 1 .. EXTENTS) {
      if
      :: !HAS(h_named, h_r) && data[h_r] != 0 ->
         assert(HAS(head, h_r) || (HAS(head, h_r - 1) && HAS(two, h_r - 1)));
         data[h_r] = DIRTY
      :: else
      fi
    }
    h_r = 0
  }
}

/* A store into an extent of one's own through the mapping. */
inline Touch(e) {
  d_step {
    assert(there[e] && (!HAS(two, e) || there[e + 1])); /* NO SIGBUS: not behind the end. */
    NamedByOthers(own);
    assert((h_named & UNITS_OF(e)) == 0)                /* NOT FOREIGN */
  }
}

/* A unit is about to be zeroed, cut off or built on. */
inline MustBeFree(e) {
  d_step {
    NamedByOthers(0);
    assert(!HAS(h_named, e)) /* NOT IN USE: no seal and no reservation names it. */
  }
}

/* --- Killing ----------------------------------------------------------------------------------- */
inline LeaveAll() {
  d_step {
    for (h_r : 1 .. RECORDS) {
      if
      :: record_lock[h_r] == p -> record_lock[h_r] = NOBODY
      :: else
      fi
    }
    if
    :: table_lock == p -> table_lock = NOBODY
    :: else
    fi;
    /* CLAIMABLE: what this owner had is in records that nobody holds. */
    h_sup = 0;
    h_once = 0;
    for (h_r : 1 .. RECORDS) {
      if
      :: INF(h_r) != 2 -> h_sup = h_sup | mask[S(h_r, INF(h_r))]
      :: else
      fi
    }
    for (h_r : 1 .. RECORDS) {
      if
      :: !HAS(h_sup, h_r) && record_lock[h_r] == NOBODY -> h_once = h_once | CONTENT(h_r)
      :: else
      fi
    }
    assert((held[p] & ~h_once) == 0);
    held[p] = 0;
    still[p] = 0;
    own = 0; cur = 0; claimed = 0; dead = 0; left = 0; used = 0; i = 0; bld = 0; old = 0; next = 0;
    voided = 0; slot = 0; r = 0; more = 0; saves = 0; part = 0; seen = 0; x = 0; move = 0;
    old_units = 0; voided_two = 0; size = 0;
    h_r = 0
  }
}
#define DIE kills > 0 -> kills--; LeaveAll(); goto end_of_life
#define KILL atomic { DIE }
/* A step that others may see before or after any of theirs. */
#define STEP(...) if :: atomic { __VA_ARGS__ } :: KILL fi
/* Between two steps that no other process can tell apart, because it would need a lock that is
 * held: only a kill. */
#define OR_DIE if :: true :: DIE fi

/* --- Seals ------------------------------------------------------------------------------------- */
inline WipeSeal(q) { valid[q] = 0; mask[q] = 0; cont[q] = 0; ext[q] = 0 }
inline WriteSeal(rec, s, c, e, m) {
  valid[S(rec, s)] = 1; cont[S(rec, s)] = c; ext[S(rec, s)] = e; mask[S(rec, s)] = m;
  newer[rec] = s; sealed[rec] = 1;
  cont[S(rec, 1 - (s))] = 0; mask[S(rec, 1 - (s))] = 0 /* Of no account any more. */
}
/* An empty seal in force, and the one that was out of it for good; then THEN, which others cannot
 * see. A seal that is marked already need not be marked again. */
#define REPLACE_SEAL(rec, c, e, THEN)                                                       \
  if                                                                                        \
  :: atomic { valid[S(rec, 1 - INF(rec))] -> slot = 1 - INF(rec); WipeSeal(S(rec, slot)) }; \
     STEP(WriteSeal(rec, slot, c, e, 0); slot = 1 - slot; Check())                          \
  :: atomic { !valid[S(rec, 1 - INF(rec))] -> slot = INF(rec);                              \
       WriteSeal(rec, 1 - slot, c, e, 0); Check() }                                         \
  :: KILL                                                                                   \
  fi;                                                                                       \
  STEP(WipeSeal(S(rec, slot)); slot = 0; Check(); THEN)
#define VOID(rec, THEN) REPLACE_SEAL(rec, 0, 0, THEN)
/* The same content, standing for nobody else's any more. */
#define RESEAL(rec, THEN) \
  REPLACE_SEAL(rec, cont[S(rec, newer[rec])], ext[S(rec, newer[rec])], THEN)
/* The first step of a save's seal. */
#define BEGIN_SEAL slot = 1 - INF(own); WipeSeal(S(own, slot)); Check()
/* Both of a dead owner's record, by one who holds the table's lock. */
inline ReplaceSealOfDead(rec, c, e) {
  OR_DIE; slot = INF(rec); WipeSeal(S(rec, 1 - slot));
  OR_DIE; WriteSeal(rec, 1 - slot, c, e, 0); Check();
  OR_DIE; WipeSeal(S(rec, slot)); slot = 0; Check()
}
#define VOID_DEAD(rec) ReplaceSealOfDead(rec, 0, 0)
#define RESEAL_DEAD(rec) ReplaceSealOfDead(rec, cont[S(rec, slot)], ext[S(rec, slot)])

/* --- Room -------------------------------------------------------------------------------------- */
#define NAMED(r, s) (valid[S(r, s)] -> UNITS_OF(ext[S(r, s)]) : 0)
#define IS_ANOTHERS(r) (record_lock[r] != NOBODY && record_lock[r] != p)

/* Records that nobody else writes to may as well be read at once. */
inline FindUsedStable() {
  do
  :: i <= RECORDS && !IS_ANOTHERS(i) ->
     used = used | NAMED(i, 0) | NAMED(i, 1) | reserved[i];
     i++
  :: else -> break
  od
}
inline FindUsedNext() {
  used = used | NAMED(i, 0) | NAMED(i, 1) | reserved[i];
  i++;
  FindUsedStable()
}

#define ALL_EXTENTS (BIT(EXTENTS + 1) - 2)
/* Locks the table, looks which extents are named, record by record, and does the rest with the lock
 * held to the end of it. */
#define LOCKED table_lock == NOBODY -> table_lock = p; used = 0; i = 1; FindUsedStable()
#define FIND_USED_THEN(...)                              \
  do                                                     \
  :: atomic { i <= RECORDS -> FindUsedNext() }           \
  :: atomic { i > RECORDS -> i = 0; __VA_ARGS__; break } \
  :: KILL                                                \
  od
#define UNLOCK used = 0; table_lock = NOBODY

/* Whatever stood there, another extent or none does now. */
inline HeadIsGone(u) {
  d_step {
    head = head & ~BIT(u);
    two = two & ~BIT(u);
    for (h_r : 1 .. PROCESSES) { still[h_r] = still[h_r] & ~BIT(u) }
    h_r = 0
  }
}
inline ZeroUnit(u) { MustBeFree(u); data[u] = 0 }
/* An extent that nobody names: its head goes last. */
inline EraseExtent(e) {
  if
  :: HAS(two, e) && !HAS(used, e + 1) -> ZeroUnit(e + 1)
  :: else
  fi;
  ZeroUnit(e);
  OR_DIE;
  HeadIsGone(e)
}
/* What a dead owner or one without the lock has left in a unit that nobody names. */
inline FreeRange(u) {
  if
  :: HAS(head, u) -> EraseExtent(u)
  :: else -> assert(data[u] == 0)
  fi
}
/* What nobody names at the end. */
inline CutEnd() {
  x = EXTENTS;
  do
  :: x > 0 && !HAS(used, x) ->
     if
     :: there[x] -> ZeroUnit(x); HeadIsGone(x); there[x] = 0
     :: else
     fi;
     x--
  :: else -> break
  od;
  x = 0
}
/* Zeroes an extent that nobody names, if it is still there; then cuts off the end.
 * `LATE_GIVE_BACK`: without a look whether it is, and as long as it was. */
inline GiveBackLocked(e, was) {
#ifdef LATE_GIVE_BACK
  if
  :: (used & was) == 0 && there[e] ->
     ZeroUnit(e);
     HeadIsGone(e);
     if
     :: HAS(was, e + 1) -> ZeroUnit(e + 1); HeadIsGone(e + 1)
     :: else
     fi
  :: else
  fi;
#else
  if
  :: HAS(still[p], e) && (used & UNITS_OF(e)) == 0 && there[e] -> EraseExtent(e)
  :: else
  fi;
#endif
  OR_DIE;
  CutEnd();
  UNLOCK;
  Check()
}
/* The lowest in a set; 0: none. */
inline Lowest(set) {
  r = 0;
  do
  :: set == 0 || HAS(set, r) -> break
  :: else -> r++
  od;
  if
  :: set == 0 -> r = 0
  :: else
  fi
}
/* The next whose content was taken, and is to be voided where it came from. */
inline NextTaken() {
  Lowest(left);
  if
  :: left != 0 && ext[S(r, INF(r))] != 0 ->
     voided = voided | BIT(ext[S(r, INF(r))]);
     voided_two = voided_two | (two & BIT(ext[S(r, INF(r))]));
     still[p] = still[p] | BIT(ext[S(r, INF(r))])
  :: else
  fi
}
/* Or does not: the lock was not to be had in time. */
#define GIVE_BACK(e, was, THEN)                            \
  if                                                       \
  :: atomic { LOCKED };                                    \
     FIND_USED_THEN(GiveBackLocked(e, was); LEFT(e); THEN) \
  :: atomic { true -> LEFT(e); THEN }                      \
  :: KILL                                                  \
  fi
#define LEFT(e) still[p] = still[p] & ~BIT(e)
#define LEAVE(e) old = e; old_units = UNITS_OF(e); still[p] = still[p] | BIT(e)

/* Tries the lock of every record: those that are free, or taken already, up to the next that is
 * held, in one step. */
inline LockDeadOwners() {
  do
  :: i <= RECORDS && record_lock[i] == NOBODY ->
     record_lock[i] = p; dead = dead | BIT(i); more = 1; i++
  :: i <= RECORDS && record_lock[i] == p -> i++
  :: else -> break
  od;
  i++;
  if
#ifdef ONE_PASS
  :: i > RECORDS -> i = 0; more = 0
#else
  /* Until a pass adds none: one whose owner died meanwhile may be standing for another. */
  :: i > RECORDS && more -> i = 1; more = 0
  :: i > RECORDS && !more -> i = 0
#endif
  :: else
  fi
}

/* --- Opening ------------------------------------------------------------------------------------ */
/* Finishes what the dead were at. */
inline SettleDeadOwners() {
  i = 1;
  do
  :: i <= RECORDS && HAS(dead, i) ->
     reserved[i] = 0;
#ifndef NO_SUPERSESSION
     if
     :: INF(i) != 2 -> left = mask[S(i, INF(i))]
     :: else -> left = 0
     fi;
     if
     :: left != 0 && MAY_SETTLE(left) ->
        left = left & dead;
        r = 1;
        do
        :: r <= RECORDS && HAS(left, r) && INF(r) != 2 -> VOID_DEAD(r); r++
        :: r <= RECORDS && !(HAS(left, r) && INF(r) != 2) -> r++
        :: r > RECORDS -> break
        od;
        r = 0; left = 0;
        RESEAL_DEAD(i)
     :: else -> left = 0
     fi;
#endif
     i++
  :: i <= RECORDS && !HAS(dead, i) -> i++
  :: i > RECORDS -> break
  od
}
/* In `left`: not what another's seal, live or dead, stands for. */
inline OwnersWithContent() {
  left = dead;
  i = 1;
  do
  :: i <= RECORDS ->
#ifndef NO_SUPERSESSION
     if
     :: INF(i) != 2 -> left = left & ~mask[S(i, INF(i))]
     :: else
     fi;
#endif
     if
     :: CONTENT(i) == 0 -> left = left & ~BIT(i)
     :: else
     fi;
     i++
  :: i > RECORDS -> i = 0; break
  od
}
/* One as this owner's own, and of further ones any: by age, size and damage. */
inline TakeContents() {
  own = 1;
  do
  :: (left >> (own + 1)) != 0 -> own++
  :: HAS(left, own) -> break
  od;
  left = left & ~BIT(own);
  r = 1;
  do
  :: r <= RECORDS && HAS(left, r) -> claimed = claimed | BIT(r); r++
  :: r <= RECORDS && (LEAVES_SOME || !HAS(left, r)) -> r++
  :: r > RECORDS -> break
  od;
  r = 0; left = 0;
  cur = ext[S(own, INF(own))]
}
inline TakeEmptyRecord() {
  own = 1;
  do
  :: own <= RECORDS && (!HAS(dead, own) || CONTENT(own) != 0) -> own++
  :: else -> break
  od;
  if
  :: own > RECORDS -> LeaveAll(); goto end_of_life /* All are taken: refused. */
  :: else
  fi;
  if
  :: INF(own) == 2 -> OR_DIE; WriteSeal(own, 0, 0, 0, 0); Check()
  :: else -> cur = ext[S(own, INF(own))]
  fi
}
/* Of those that it does not need: without the table's lock nobody tries them, so they may go in one
 * step. */
inline UnlockOwners() {
  r = 1;
  do
  :: r <= RECORDS ->
     if
     :: r == own || HAS(claimed, r) -> held[p] = held[p] | CONTENT(r)
     :: else ->
        if
        :: HAS(dead, r) -> record_lock[r] = NOBODY
        :: else
        fi
     fi;
     r++
  :: else -> break
  od;
  r = 0; dead = 0
}

/* --- Saving ------------------------------------------------------------------------------------- */
/* Room::Take() with the table's lock held; bld is 0 when the disk is full. */
inline TakeLocked() {
  if
  :: size = 1
  :: size = 2
  fi;
  /* The first room that is long enough; what is left there goes as a whole. */
  bld = 1;
  do
  :: bld + size <= EXTENTS + 1 && (used & (BIT(bld) | BIT(bld + size - 1))) != 0 -> bld++
  :: else -> break
  od;
  if
  :: bld + size > EXTENTS + 1 -> bld = 0; next = 0; move = 0 /* The disk is full. */
  :: else ->
     FreeRange(bld);
     if
     :: size == 2 -> FreeRange(bld + 1)
     :: else
     fi;
#ifndef NO_RESERVATION
     reserved[own] = BIT(bld) | BIT(bld + size - 1);
#endif
     OR_DIE;
     x = bld + size - 1;
     do
     :: x > 0 -> there[x] = 1; x--
     :: else -> break
     od;
     OR_DIE;
     head = head | BIT(bld);
     if
     :: size == 2 -> two = two | BIT(bld)
     :: else
     fi
  fi;
  size = 0
}
inline DropReservation() { reserved[own] = 0; Check() }
/* Both extents are marked; the one that is left is unmapped. */
inline MoveContent() {
  Touch(bld);
  if
  :: cur != 0 -> Touch(cur)
  :: else
  fi;
  if
  :: cur != 0 -> LEAVE(cur)
  :: else
  fi;
  cur = bld; bld = 0
}
/* The older seal of its own. */
inline PutOutOfForce() { slot = 1 - INF(own); WipeSeal(S(own, slot)); slot = 0; Check() }
/* Into every unit of it: wherever a unit is lost or comes back, a packet does. */
inline Place(e, messages) {
  Touch(e);
  data[e] = messages;
  if
  :: HAS(two, e) -> data[e + 1] = messages
  :: else
  fi
}

/* --- One process after another, under one number ------------------------------------------------ */
proctype Process(byte p) {
  byte own, cur, claimed, dead, left, used, i, bld, old, next, voided, r, x, part, saves, slot;
  byte old_units, voided_two, size;
  bool more, seen, made, move;

  /* Processes are alike: in which order they open first makes no difference. */
end_of_none:
  atomic { begun == p - 1 && table_lock == NOBODY && opens > 0 -> begun++ }
end_of_life:
  atomic { opens > 0 && table_lock == NOBODY -> opens--; table_lock = p; i = 1; LockDeadOwners() };
  do
  :: atomic { i != 0 -> LockDeadOwners() }

  :: atomic { i == 0 ->
       SettleDeadOwners();
       OR_DIE;

       OwnersWithContent();
       if
       :: left != 0 -> TakeContents()
       :: else -> TakeEmptyRecord()
       fi;
       OR_DIE;
       UnlockOwners();
       table_lock = NOBODY;
       d_step {
         for (h_r : 1 .. PROCESSES) {
           assert(h_r == p || (held[h_r] & held[p]) == 0) /* ONE OWNER */
         }
         h_r = 0
       };
       break }
  :: KILL
  od;

ready:
  if
  /* A save. Of what it holds nothing, a part or everything has been delivered, and there is a new
   * message or not. */
  :: atomic { saves < SAVES ->
       saves++;
       if
       :: next = held[p]
       :: held[p] != 0 -> next = 0
       :: (held[p] & (held[p] - 1)) != 0 -> next = held[p] & (held[p] - 1)
       fi;
       if
       :: !made -> made = 1; next = next | BIT(p + 1)
       :: made || next != held[p]
       fi;
       /* In place, in a new extent, or without one. */
       if
       :: cur != 0 -> Place(cur, data[cur] | next); Check()
       :: !(cur == 0 && next == 0) -> move = 1
       :: cur == 0 && next == 0
       fi }
  :: atomic { true -> skip }; goto close
  :: KILL
  fi;

  if
  :: atomic { move && LOCKED };
     FIND_USED_THEN(
       TakeLocked();
       UNLOCK;
       Check();
       if
       :: !move -> goto ready
       :: else
       fi);
     if
     :: atomic { move -> Place(bld, next); Check() };
#ifdef FREE_BEFORE_SEAL
        STEP(
          if
          :: cur != 0 -> data[cur] = 0; Check()
          :: else
          fi);
#endif
        if
        :: atomic { BEGIN_SEAL }
        /* Something was refused: Void(), and the extent is given up by Discard(). */
        :: atomic { true -> Touch(bld); LEAVE(bld); bld = 0; next = 0; move = 0 };
           STEP(DropReservation());
           GIVE_BACK(old, old_units, old = 0; old_units = 0; goto ready)
        :: KILL
        fi
     :: KILL
     fi
  :: atomic { !move -> BEGIN_SEAL }
  :: KILL
  fi;

  /* SealSave(): the one step. */
  STEP(
    x = (bld != 0 -> bld : cur);
#ifdef NO_MASK
    WriteSeal(own, slot, next, x, 0);
#else
    WriteSeal(own, slot, next, x, claimed);
#endif
    x = 0;
    saved = (saved & ~held[p]) | next;
    held[p] = next;
    next = 0; slot = 0;
    Check();
    left = claimed;
    NextTaken();
    if
    :: move
    :: !move && claimed == 0 -> goto ready
    :: !move && claimed != 0 -> goto finish_take_over
    fi);

  /* FinishMove(): the content is where it was built. */
#ifdef FREE_AFTER_VOID
  STEP(PutOutOfForce());
#endif
  STEP(MoveContent());
#ifndef FREE_AFTER_VOID
  STEP(PutOutOfForce());
#endif
  STEP(
    DropReservation(); move = 0;
    if
    :: old == 0 && claimed == 0 -> goto ready
    :: old == 0 && claimed != 0 -> goto finish_take_over
    :: else
    fi);
  GIVE_BACK(old, old_units,
    old = 0; old_units = 0;
    if
    :: claimed == 0 -> goto ready
    :: else
    fi);

finish_take_over:
#ifdef UNLOCK_BEFORE_VOID
  STEP(
    for (h_r : 1 .. RECORDS) {
      if
      :: HAS(claimed, h_r) -> record_lock[h_r] = NOBODY
      :: else
      fi
    }
    h_r = 0);
#endif
#ifdef RESEAL_BEFORE_VOID
  RESEAL(own, skip);
#endif
void_next:
  VOID(r,
    left = left & ~BIT(r);
    NextTaken();
    if
    :: left != 0 -> goto void_next
    :: else
    fi;
    Lowest(claimed));
#ifndef RESEAL_BEFORE_VOID
  RESEAL(own, skip);
#endif
unlock_next:
  STEP(
    if
    :: record_lock[r] == p -> record_lock[r] = NOBODY
    :: else
    fi;
    claimed = claimed & ~BIT(r);
    Lowest(claimed);
    if
    :: claimed != 0 -> goto unlock_next
    :: else
    fi;
    Lowest(voided);
    if
    :: voided == 0 -> goto ready
    :: else
    fi);
give_next:
  GIVE_BACK(r, BIT(r) | ((voided_two & BIT(r)) << 1),
    voided = voided & ~BIT(r);
    voided_two = voided_two & ~BIT(r);
    Lowest(voided);
    if
    :: voided != 0 -> goto give_next
    :: else -> goto ready
    fi);

close:
  /* GiveBackIfEmpty(): an owner without content needs no room. */
  if
  :: atomic { cur != 0 && held[p] == 0 && claimed == 0 ->
       LEAVE(cur); cur = 0;
#ifndef FREE_AFTER_VOID
       Touch(old)
#endif
     };
     VOID(own, skip);
#ifdef FREE_AFTER_VOID
     STEP(Touch(old));
#endif
     GIVE_BACK(old, old_units, LeaveAll(); goto end_of_life)
  :: atomic { !(cur != 0 && held[p] == 0 && claimed == 0) -> LeaveAll(); goto end_of_life }
  :: KILL
  fi
}

init {
  d_step { /* What two dead owners left. */
    WriteSeal(1, 0, 1, 1, 0);
    WriteSeal(2, 0, 2, 2, 0);
    data[1] = 1; there[1] = 1;
    data[2] = 2; there[2] = 1;
    head = BIT(1) | BIT(2);
    saved = 3
  }
  atomic {
    byte n;
    for (n : 1 .. PROCESSES) {
      run Process(n)
    }
  }
}
