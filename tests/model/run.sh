#!/usr/bin/env bash
# Runs one configuration of a model with Spin, and judges what Spin says.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
readonly MEGABYTES=400
readonly DEPTH=100000

# NAME | KIND | SWITCHES | EXPECTED, the model being tokens.pml where the name begins with "list_",
# otherwise connection.pml. Kinds:
#   holds      in every run no assertion fails and every thread gets out of the library
#   fair       the same while a Gateway pings for ever, if no thread is left aside for ever
#   acyclic    nothing goes round in circles, with or without fairness
#   hangs      a thread waits for ever, as it is known to; EXPECTED are the threads
#   fails      something is undone that matters, and Spin finds out; EXPECTED is what it says
configurations() {
    cat <<'TABLE'
answered_calls         | holds   | SYNC=2 GRACEFUL=1 DIES CLOSES
purged_calls           | holds   | SYNC=2 PURGE=1 SILENT
unit_of_work           | holds   | SYNC=1 UNITS TIMED=1 SILENT DIES CLOSES
stuck_senders          | holds   | SYNC=2 FULL DIES LAST ENDS_ITSELF COMMAREA
half_reply_given_up    | holds   | SYNC=1 ASYNC=1 UNASKED=1 NOTHING_WRITTEN HALF_REPLY COMMAREA
half_reply_lost        | holds   | SYNC=1 PURGE=1 UNASKED=1 WRITE_FAILS HALF_REPLY LAST COMMAREA
receiver_ends          | holds   | SYNC=1 ASYNC=1 ANY=1 ENDS_ITSELF COMMAREA
receiver_ends_closing  | holds   | ASYNC=1 ANY=1 GRACEFUL=1 CHANNEL ENDS_ITSELF
any_reply              | holds   | ASYNC=1 ANY=2 PURGE=1
any_reply_in_order     | holds   | ASYNC=2 ANY=1 GRACEFUL=1 CLOSE_AFTER_CALLS DIES
any_reply_without_end  | holds   | ASYNC=1 ANY=1 DIES CLOSES LAST
any_and_specific_reply | holds   | ASYNC=2 ANY=1 SPECIFIC=1 LAST
specific_replies       | holds   | ASYNC=2 SPECIFIC=2 GRACEFUL=1
specific_reply_lost    | holds   | ASYNC=1 SPECIFIC=1 TIMED=1 SILENT DIES CLOSES
reply_left_queued      | holds   | ASYNC=1 SMALL=1 ANY=1 GRACEFUL=1 REFUSES
reply_left_for_another | holds   | ASYNC=1 SMALL=1 ANY=1 SILENT QUIET
async_unit_of_work     | holds   | ASYNC=1 UNITS ANY=1 PURGE=1
async_unit_on_channel  | holds   | ASYNC=1 UNITS ANY=1 CHANNEL WRITE_FAILS LAST
polled_replies         | holds   | ASYNC=2 SPECIFIC=2 POLL=1
replies_not_overlooked | holds   | ASYNC=2 SPECIFIC=2 SILENT QUIET
calls_of_both_kinds    | holds   | SYNC=1 ASYNC=1 SPECIFIC=1 PURGE=1
channel_calls          | holds   | SYNC=1 ASYNC=1 SPECIFIC=1 GRACEFUL=1 CHANNEL
channel_reply_given_up | holds   | SYNC=1 ASYNC=1 PURGE=1 CHANNEL
channel_sending_fails  | holds   | ASYNC=1 PURGE=1 DIES CLOSES CHANNEL
channel_overtaken       | holds  | SYNC=1 PURGE=1 REFUSES DIES CLOSES CHANNEL CHANGE_FAILS WRITE_FAILS
channel_overtaken_twice | holds  | SYNC=1 GRACEFUL=1 UNASKED=1 WRITE_FAILS CHANNEL
channel_async_overtaken | holds  | ASYNC=1 ANY=1 PURGE=1 REFUSES CHANNEL
channel_async_lost      | holds  | ASYNC=1 ANY=1 DIES CLOSES LAST REFUSES CHANNEL
channel_reply_refused   | holds  | ASYNC=1 ANY=2 GRACEFUL=1 REFUSES CHANNEL CLOSE_AFTER_CALLS
channel_reply_polled    | holds  | ASYNC=1 POLL=1 PURGE=1 WRITE_FAILS CHANGE_FAILS CHANNEL
channel_two_closers     | holds  | ASYNC=1 PURGE=1 ALL=1 REFUSES CHANNEL
channel_unit_of_work    | holds  | SYNC=1 UNITS TIMED=1 REFUSES CHANNEL DIES
channel_and_plain_call  | holds  | SYNC=2 PLAIN=1 REFUSES CHANNEL LAST COMMAREA
channel_stuck_sender    | holds  | SYNC=2 PLAIN=1 REFUSES CHANNEL HALF_READ QUIET
channel_calls_withdrawn | holds  | SYNC=1 ASYNC=1 ANY=1 GRACEFUL=1 NOTHING_WRITTEN CHANNEL
commarea_two_calls       | holds | SYNC=2 GRACEFUL=1 REFUSES COMMAREA
commarea_two_calls_lost  | holds | SYNC=2 REFUSES WRITE_FAILS LAST COMMAREA
commarea_overtaken       | holds | SYNC=1 PURGE=1 REFUSES DIES CLOSES WRITE_FAILS COMMAREA
commarea_overtaken_twice | holds | SYNC=1 GRACEFUL=1 UNASKED=1 WRITE_FAILS COMMAREA
commarea_overtaken_often | holds | SYNC=1 PURGE=1 UNASKED=2 REFUSES LAST COMMAREA
commarea_unasked_reply   | holds | SYNC=2 UNASKED=1 LAST COMMAREA
commarea_not_written     | holds | SYNC=2 GRACEFUL=1 UNASKED=1 NOTHING_WRITTEN COMMAREA
commarea_receiver_ends   | holds | SYNC=1 GRACEFUL=1 UNASKED=1 ENDS_ITSELF COMMAREA
commarea_two_closers     | holds | SYNC=1 GRACEFUL=1 PURGE=1 DIES COMMAREA
commarea_unit_of_work    | holds | SYNC=1 UNITS TIMED=1 REFUSES DIES COMMAREA
commarea_and_async_call  | holds | SYNC=1 ASYNC=1 ANY=1 UNASKED=1 LAST COMMAREA
commarea_and_refusals    | holds | SYNC=1 ASYNC=1 ANY=1 REFUSES LAST COMMAREA
commarea_and_collector   | holds | SYNC=1 ANY=1 DIES CLOSES WRITE_FAILS LAST COMMAREA
commarea_and_channel     | holds | SYNC=2 PLAIN=1 CHANNEL REFUSES DIES LAST COMMAREA
commarea_stuck_sender    | holds | SYNC=1 ASYNC=1 SPECIFIC=1 REFUSES HALF_READ QUIET COMMAREA
withdrawn_calls        | holds   | ASYNC=1 ANY=1 GRACEFUL=1 NOTHING_WRITTEN
withdrawn_guesses      | holds   | ASYNC=2 GUESSING=1 NOTHING_WRITTEN
withdrawn_or_answered  | holds   | ASYNC=2 GUESSING=1 WRITE_FAILS
withdrawn_and_any      | holds   | ASYNC=1 GUESSING=1 ANY=1 NOTHING_WRITTEN QUIET
withdrawn_unit_of_work | holds   | ASYNC=1 UNITS GUESSING=1 ANY=1 WRITE_FAILS QUIET
withdrawn_while_pending | holds  | ASYNC=1 GUESSING=1 UNASKED=1 CHANNEL NOTHING_WRITTEN
broken_flow_of_a_channel | holds | SYNC=2 PLAIN=1 CHANNEL WRITE_FAILS LAST COMMAREA
broken_flow_withdrawn    | holds | SYNC=1 PLAIN=1 ASYNC=1 CHANNEL WRITE_FAILS LAST COMMAREA
broken_flow_of_a_call    | holds | SYNC=1 ASYNC=1 WRITE_FAILS LAST COMMAREA
broken_flow_and_end      | holds | SYNC=2 PLAIN=1 CHANNEL REFUSES DIES CLOSES LAST
pending_any              | holds | ASYNC=1 ANY=1 CHANNEL WRITE_FAILS DIES CLOSES LAST
pending_any_two          | holds | ASYNC=1 ANY=2 CHANNEL WRITE_FAILS DIES LAST
pending_any_purged       | holds | ASYNC=1 ANY=1 CHANNEL WRITE_FAILS PURGE=1
pending_any_graceful     | holds | ASYNC=1 ANY=1 CHANNEL WRITE_FAILS GRACEFUL=1
pending_any_all          | holds | ASYNC=1 ANY=1 CHANNEL WRITE_FAILS ALL=1
pending_one              | holds | ASYNC=1 GUESSING=1 CHANNEL WRITE_FAILS DIES CLOSES LAST
pending_one_purged       | holds | ASYNC=1 GUESSING=1 CHANNEL WRITE_FAILS PURGE=1
pending_one_all          | holds | ASYNC=1 GUESSING=1 CHANNEL WRITE_FAILS ALL=1
pending_known_one        | holds | ASYNC=1 SPECIFIC=1 CHANNEL WRITE_FAILS PURGE=1
unasked_replies        | holds   | SYNC=2 UNASKED=1 WRITE_FAILS LAST
unasked_async_replies  | holds   | ASYNC=1 ANY=1 PURGE=1 UNASKED=1 WRITE_FAILS
three_closers          | holds   | SYNC=1 GRACEFUL=1 PURGE=1 ALL=1
two_closers_lost       | holds   | SYNC=1 GRACEFUL=1 ALL=1 DIES
two_closers_replies    | holds   | ASYNC=1 SPECIFIC=1 PURGE=1 ALL=1
opening                | holds   | OPENING ALL=1 DIES ENDS_ITSELF NO_THREAD COMMAREA
opening_fails          | holds   | OPENING ALL=1 NO_BUFFER NO_THREAD NOTHING_WRITTEN COMMAREA
every_thread_gets_out  | fair    | ASYNC=1 SPECIFIC=1 PURGE=1 PINGS
close_meets_late_call  | holds   | ASYNC=1 ANY=1 GRACEFUL=1
goodbye_meets_collector | holds  | ASYNC=1 ANY=1 GRACEFUL=1 CLOSE_AFTER_CALLS CLOSES
no_circles             | acyclic | ASYNC=1 SPECIFIC=1 PURGE=1 DIES WAKES
wakes_callers          | holds   | SYNC=2 GRACEFUL=1 WAKES SPURIOUS=1
wakes_callers_lost     | holds   | SYNC=1 TIMED=1 SILENT DIES WAKES SPURIOUS=1
wakes_callers_purged   | holds   | SYNC=2 PURGE=1 SILENT WAKES
wakes_collectors       | holds   | ASYNC=2 SPECIFIC=2 SILENT QUIET WAKES SPURIOUS=1
wakes_any_collectors   | holds   | ASYNC=1 ANY=2 GRACEFUL=1 WAKES
wakes_collectors_lost  | holds   | ASYNC=2 ANY=1 SPECIFIC=1 LAST WAKES
wakes_callers_at_the_end | holds | SYNC=2 DIES CLOSES LAST WAKES SPURIOUS=1
wakes_collectors_purged | holds  | ASYNC=1 ANY=1 PURGE=1 DIES WAKES
wakes_of_both_kinds    | holds   | SYNC=1 ASYNC=1 SPECIFIC=1 GRACEFUL=1 WAKES
wakes_of_the_withdrawn | holds   | ASYNC=1 ANY=1 GRACEFUL=1 NOTHING_WRITTEN WAKES SPURIOUS=1
wakes_of_guesses       | holds   | ASYNC=1 GUESSING=1 ANY=1 NOTHING_WRITTEN QUIET WAKES SPURIOUS=1
wakes_by_senders       | holds   | ASYNC=1 ANY=1 CHANNEL PURGE=1 WAKES SPURIOUS=1
wakes_by_callers       | holds   | SYNC=1 PURGE=1 REFUSES DIES COMMAREA WAKES SPURIOUS=1
wakes_closers          | holds   | SYNC=1 GRACEFUL=1 ALL=1 WAKES SPURIOUS=1
wakes_of_failed_senders | holds  | SYNC=1 ASYNC=1 UNASKED=1 NOTHING_WRITTEN HALF_REPLY LAST WAKES
wakes_of_the_purged    | holds   | SYNC=1 PURGE=1 UNASKED=1 NOTHING_WRITTEN HALF_REPLY LAST WAKES SPURIOUS=1
wakes_the_opener       | holds   | OPENING ALL=1 DIES NO_THREAD WAKES SPURIOUS=1

list_stale_variables    | holds  | SAME OPEN=1 OWNERS=1 ROUNDS=2 NAMERS=2
list_stale_calls        | holds  | SAME OPEN=1 OWNERS=1 ROUNDS=2 NAMERS=1 CALLERS=1
list_stale_after_all    | holds  | SAME OPEN=2 OWNERS=1 NAMERS=1 ALL=1 CLOSE_FAILS
list_opens_fail         | holds  | OPEN=2 OWNERS=1 OPENERS=1 ALL=1 OPEN_FAILS
list_reused_at_once     | holds  | OPEN=3 OWNERS=1 NAMERS=1 ALL=1 RESTING=0 ADDRESSES=4
list_failed_closes      | holds  | OPEN=3 NAMERS=2 ALL=1 CLOSE_FAILS
list_two_walks          | holds  | OPEN=2 ALL=2 CALLERS=1 OPENERS=1
list_opens_during_walk  | holds  | OPEN=2 OPENERS=2 ALL=1
list_late_calls         | holds  | SAME OPEN=1 NAMERS=2 CALLERS=1 ALL=1

hang_close_flow_unanswered   | hangs | SYNC=1 PURGE=1 DEAF COMMAREA | Closer
hang_call_unanswered         | hangs | SYNC=1 GRACEFUL=1 SILENT COMMAREA | Closer SyncCaller
hang_reply_uncollected       | hangs | ASYNC=1 GRACEFUL=1 | Closer
hang_goodbye_while_opening   | hangs | OPENING CLOSES | Opener
hang_opening_without_buffer  | hangs | OPENING NO_BUFFER | Opener
hang_gateway_stops_reading   | hangs | SYNC=1 PURGE=1 FULL COMMAREA | Closer SyncCaller
hang_gateway_stops_in_reply  | hangs | SYNC=1 PURGE=1 HALF_REPLY COMMAREA | Closer SyncCaller

break_state_after_send       | fails | SYNC=1 GRACEFUL=1 BREAK_STATE_AFTER_SEND | invalid end state
break_armed_after_waiting    | fails | SYNC=1 GRACEFUL=1 BREAK_ARMED_AFTER_WAITING | invalid end state
break_status_and_state_apart | fails | SYNC=1 GRACEFUL=1 DIES BREAK_STATUS_AND_STATE_APART | invalid end state
break_generation_read_late   | fails | ASYNC=2 SPECIFIC=2 SILENT QUIET BREAK_GENERATION_READ_LATE | assertion violated ((q_len(replies)==0)&&
break_not_checked_again      | fails | ASYNC=1 SPECIFIC=1 POLL=1 BREAK_SPECIFIC_NOT_CHECKED_AGAIN | invalid end state
break_end_not_told           | fails | ASYNC=1 ANY=1 DIES LAST BREAK_END_NOT_TOLD_TO_COLLECTORS | invalid end state
break_withdrawal_not_told    | fails | ASYNC=1 ANY=1 GRACEFUL=1 NOTHING_WRITTEN BREAK_WITHDRAWAL_NOT_TOLD | invalid end state
break_withdrawal_told_at_end | fails | ASYNC=1 GUESSING=1 NOTHING_WRITTEN BREAK_WITHDRAWAL_TOLD_AT_THE_END_ONLY | invalid end state
break_withdrawn_unit_not_told | fails | ASYNC=1 UNITS GUESSING=1 ANY=1 WRITE_FAILS QUIET BREAK_WITHDRAWAL_TOLD_AT_THE_END_ONLY | assertion violated ((guessersOut==1)
break_collectors_not_released | fails | ASYNC=1 ANY=1 GRACEFUL=1 CLOSE_AFTER_CALLS BREAK_COLLECTORS_NOT_RELEASED | invalid end state
break_withdraws_any          | fails | ASYNC=1 ANY=1 PURGE=1 DIES BREAK_WITHDRAWS_WHAT_IS_NOT_OURS | assertion violated  !(ended[me])
break_withdraws_idle_unit    | fails | ASYNC=1 UNITS ANY=1 WRITE_FAILS LAST BREAK_WITHDRAWS_IN_ANY_STATE | assertion violated  !(ended[me])
break_any_state_takes_outcome | fails | ASYNC=1 ANY=1 PURGE=1 UNASKED=1 BREAK_ANY_STATE_TAKES_AN_OUTCOME | assertion violated (slot[s].state==2)
break_storage_given_up       | fails | SYNC=1 GRACEFUL=1 UNASKED=1 WRITE_FAILS BREAK_STORAGE_GIVEN_UP_WHILE_READ | assertion violated (slot[s].call==call)
break_reader_not_woken       | fails | SYNC=1 UNASKED=1 NOTHING_WRITTEN HALF_REPLY BREAK_READER_NOT_WOKEN | invalid end state
break_posted_before_outcome  | fails | SYNC=1 GRACEFUL=1 BREAK_POSTED_BEFORE_THE_OUTCOME | assertion violated ((slot[s].call==me)&&(slot[s].state==3))
break_socket_not_shut_down   | fails | SYNC=1 FULL ENDS_ITSELF BREAK_SOCKET_NOT_SHUT_DOWN | invalid end state
break_closes_under_senders   | fails | SYNC=1 GRACEFUL=1 DIES BREAK_CLOSES_UNDER_SENDERS | assertion violated descriptorOpen
break_not_armed_again        | fails | SYNC=2 GRACEFUL=1 CIRCLES BREAK_CALLS_ENDED_NOT_ARMED_AGAIN | non-progress cycle
break_late_calls_not_awaited | fails | SYNC=1 GRACEFUL=1 BREAK_LATE_CALLS_NOT_AWAITED | assertion violated (((requestCount==0)
break_deleters_not_counted   | fails | SYNC=1 GRACEFUL=1 ALL=1 BREAK_DELETERS_NOT_COUNTED | assertion violated (((requestCount==0)
break_gives_up_silently      | fails | ASYNC=1 GRACEFUL=1 ALL=1 BREAK_GIVES_UP_SILENTLY | invalid end state
break_end_armed_late         | fails | OPENING DIES BREAK_END_ARMED_BY_THE_RECEIVER_ALONE | assertion violated ( !(descriptorOpen)
break_no_end_without_thread  | fails | OPENING NO_THREAD BREAK_NO_END_WITHOUT_A_THREAD | invalid end state
break_close_flow_anyway      | fails | OPENING NO_THREAD BREAK_CLOSE_FLOW_IN_ANY_STATE | assertion violated (tokenFreed||(deleteFailed&&lost))
break_ended_stream_not_marked | fails | SYNC=1 PURGE=1 CHANNEL CHANGE_FAILS BREAK_ENDED_STREAM_NOT_MARKED | assertion violated  !(streamEnded)
break_unlinked_without_room  | fails | ASYNC=1 SMALL=1 ANY=1 GRACEFUL=1 BREAK_UNLINKED_WITHOUT_ROOM | invalid end state
break_channels_given_back_late | fails | SYNC=1 ASYNC=1 PURGE=1 CHANNEL BREAK_CHANNELS_GIVEN_BACK_LATE | invalid end state
break_failed_close_keeps_channels | fails | ASYNC=1 PURGE=1 DIES CHANNEL BREAK_FAILED_CLOSE_KEEPS_CHANNELS | assertion violated (channelHolder==
break_failed_sender_leaves | fails | ASYNC=1 PURGE=1 DIES CHANNEL BREAK_FAILED_SENDER_LEAVES_EARLY | assertion violated ((channelHolder==me)&&
break_sent_while_closing     | fails | ASYNC=1 ANY=1 GRACEFUL=1 BREAK_SENT_WHILE_CLOSING | invalid end state
break_closed_before_sweep    | fails | ASYNC=1 ANY=1 GRACEFUL=1 CLOSE_AFTER_CALLS CLOSES BREAK_CLOSED_BEFORE_SWEEP | invalid end state
break_changed_while_sent     | fails | SYNC=1 GRACEFUL=1 CHANNEL BREAK_CHANGED_WHILE_BEING_SENT | assertion violated (dataBeingRead!=call)
break_settled_while_sent     | fails | ASYNC=1 POLL=1 REFUSES CHANNEL BREAK_SETTLED_WHILE_BEING_SENT | assertion violated  !(slot[id].beingSent)
break_receiver_waits         | fails | SYNC=2 PLAIN=1 REFUSES CHANNEL HALF_READ QUIET BREAK_RECEIVER_WAITS_FOR_SENDER | assertion violated ((q_len(replies)==0)&&
break_aside_dropped          | fails | SYNC=1 GRACEFUL=1 CHANNEL BREAK_ASIDE_DROPPED | invalid end state
break_aside_decided_early    | fails | SYNC=1 GRACEFUL=1 CHANNEL BREAK_ASIDE_DECIDED_WHEN_FOUND | invalid end state
break_broken_flow_not_noted  | fails | SYNC=2 PLAIN=1 CHANNEL WRITE_FAILS LAST BREAK_BROKEN_FLOW_NOT_NOTED | assertion violated ((0>0)||(answered==call))
break_broken_flow_of_async   | fails | SYNC=1 PLAIN=1 ASYNC=1 CHANNEL WRITE_FAILS LAST BREAK_BROKEN_FLOW_OF_ASYNC_NOT_NOTED | assertion violated ((0>0)||(answered==call))
break_end_of_withdrawn       | fails | ASYNC=1 ANY=1 CHANNEL WRITE_FAILS DIES LAST BREAK_WITHDRAWAL_BEHIND_THE_END_NOT_TOLD | invalid end state
break_pending_not_awaited    | fails | ASYNC=1 ANY=1 CHANNEL DIES LAST BREAK_PENDING_NOT_AWAITED | assertion violated (q_len(replies)==0)
break_pending_takes_another  | fails | SYNC=1 PURGE=1 CHANNEL DIES BREAK_PENDING_TAKES_ANOTHER | assertion violated ((slot[s].state==2)&&(slot[s].outcomePending==0))
break_pending_of_any_use     | fails | ASYNC=1 UNITS ANY=1 CHANNEL LAST BREAK_PENDING_OF_ANY_USE | assertion violated ( !((me>=0))||(channelHolder==me))
break_mark_stays             | fails | SYNC=1 PURGE=1 CHANNEL BREAK_MARK_STAYS | invalid end state
break_leaves_before_delivery | fails | ASYNC=1 PURGE=1 CHANNEL BREAK_LEAVES_BEFORE_DELIVERING | assertion violated ( !(slot[calls].beingSent)&&(slot[calls].outcomePending==0))
break_commarea_while_sent    | fails | SYNC=1 GRACEFUL=1 COMMAREA BREAK_CHANGED_WHILE_BEING_SENT | assertion violated (dataBeingRead!=call)
break_commarea_before_read   | fails | SYNC=1 GRACEFUL=1 UNASKED=1 COMMAREA BREAK_GUARDED_ONLY_WHILE_READ | assertion violated  !(changed[me])
break_commarea_marked_late   | fails | SYNC=1 UNASKED=1 LAST COMMAREA BREAK_MARKED_WHEN_READ | assertion violated (dataBeingRead!=call)
break_commarea_mark_stays    | fails | SYNC=1 GRACEFUL=1 COMMAREA BREAK_MARK_STAYS | invalid end state
break_commarea_aside_dropped | fails | SYNC=1 GRACEFUL=1 COMMAREA BREAK_ASIDE_DROPPED | invalid end state
break_commarea_aside_early   | fails | SYNC=1 GRACEFUL=1 COMMAREA BREAK_ASIDE_DECIDED_WHEN_FOUND | invalid end state
break_commarea_twice         | fails | SYNC=1 GRACEFUL=1 COMMAREA BREAK_CHANGED_TWICE | assertion violated  !(changed[call])
break_commarea_settled       | fails | SYNC=1 PURGE=1 REFUSES COMMAREA BREAK_SETTLED_WHILE_BEING_SENT | assertion violated  !(slot[s].beingSent)
break_commarea_dropped       | fails | SYNC=1 PURGE=1 WRITE_FAILS COMMAREA BREAK_DROPPED_IS_APPLIED | assertion violated ((slot[s].outcomePending==0)|| !(changed[slot[s].call]))
break_commarea_takes_another | fails | SYNC=1 PURGE=1 DIES COMMAREA BREAK_PENDING_TAKES_ANOTHER | assertion violated ((slot[s].state==2)&&(slot[s].outcomePending==0))
break_commarea_holds_receiver | fails | SYNC=1 ASYNC=1 SPECIFIC=1 REFUSES HALF_READ QUIET COMMAREA BREAK_RECEIVER_WAITS_FOR_SENDER | assertion violated ((q_len(replies)==0)&&
break_pending_of_any_kind    | fails | SYNC=1 ANY=1 DIES LAST COMMAREA BREAK_PENDING_OF_ANY_KIND | invalid end state
break_marked_without_need    | fails | SYNC=1 ASYNC=1 ANY=1 LAST COMMAREA BREAK_MARKED_WITHOUT_NEED | assertion violated (0||(slot[s].call<1))
break_woken_before_opened    | fails | SYNC=1 GRACEFUL=1 WAKES BREAK_WOKEN_BEFORE_OPENED | invalid end state
break_queue_not_woken        | fails | ASYNC=1 ANY=1 GRACEFUL=1 WAKES BREAK_QUEUE_NOT_WOKEN | invalid end state
break_look_and_sleep_apart   | fails | SYNC=1 GRACEFUL=1 WAKES BREAK_LOOK_AND_SLEEP_APART | invalid end state
break_not_looked_at_again    | fails | SYNC=2 GRACEFUL=1 WAKES BREAK_NOT_LOOKED_AT_AGAIN | assertion violated ((slot[s].call==me)&&(slot[s].state==3))
break_woken_for_no_reason    | fails | SYNC=1 SILENT QUIET WAKES SPURIOUS=1 BREAK_NOT_LOOKED_AT_AGAIN | assertion violated ((slot[s].call==me)&&(slot[s].state==3))
break_gate_looked_at_again   | fails | ASYNC=2 SPECIFIC=2 SILENT QUIET WAKES BREAK_GATE_LOOKED_AT_AGAIN | assertion violated ((q_len(replies)==0)&&
break_wakes_one              | fails | ASYNC=2 SPECIFIC=2 SILENT QUIET WAKES BREAK_WAKES_ONE | assertion violated ((q_len(replies)==0)&&
break_event_goes_with_request | fails | SYNC=1 GRACEFUL=1 WAKES BREAK_EVENT_GOES_WITH_ITS_REQUEST | assertion violated slot[toWake].hasEvent
break_table_goes_with_requests | fails | SYNC=2 GRACEFUL=1 WAKES BREAK_TABLE_GOES_WITH_ITS_REQUESTS | assertion violated slot[toWake].hasEvent
break_woken_behind_the_end   | fails | SYNC=1 PURGE=1 SILENT WAKES BREAK_WOKEN_BEHIND_THE_END | assertion violated  !(tokenFreed)
break_woken_when_left        | fails | SYNC=1 PURGE=1 COMMAREA WAKES BREAK_WOKEN_WHEN_LEFT | assertion violated  !(tokenFreed)
break_receiver_not_awaited   | fails | SYNC=1 GRACEFUL=1 WAKES BREAK_RECEIVER_NOT_AWAITED | assertion violated ( !(descriptorOpen)&&recvThreadEnded.open)
break_senders_leave_silently | fails | SYNC=1 GRACEFUL=1 DIES WAKES BREAK_SENDERS_LEAVE_SILENTLY | invalid end state
break_reading_ends_silently  | fails | SYNC=1 UNASKED=1 NOTHING_WRITTEN HALF_REPLY WAKES BREAK_READING_ENDS_SILENTLY | invalid end state
list_break_opening_visible   | fails | SAME OPEN=1 OWNERS=1 ROUNDS=2 NAMERS=1 BREAK_OPENING_VISIBLE | assertion violated ((record[token].memory==
list_break_mark_and_count    | fails | OPEN=1 OPENERS=1 NAMERS=1 ALL=1 RESTING=0 BREAK_MARK_AND_COUNT_APART | assertion violated ((record[token].memory==
list_break_read_twice        | fails | SAME OPEN=1 OWNERS=1 NAMERS=1 BREAK_VARIABLE_READ_TWICE | assertion violated ((record[token].memory==
list_break_walk_by_address   | fails | OPEN=3 OWNERS=2 ALL=1 RESTING=0 BREAK_WALK_BY_ADDRESS | assertion violated (serial<=lastMeant)
list_break_walk_leaves_failed | fails | OPEN=3 NAMERS=2 ALL=1 CLOSE_FAILS BREAK_WALK_BY_ADDRESS | assertion violated ((((record[i].memory!=
list_break_walk_without_end  | fails | OPEN=2 OPENERS=2 ALL=1 BREAK_WALK_WITHOUT_END | assertion violated (serial<=lastMeant)
list_break_walk_ends_early   | fails | OPEN=2 OPENERS=1 ALL=1 BREAK_WALK_ENDS_EARLY | assertion violated ((((record[i].memory!=
list_break_no_rest           | fails | SAME OPEN=1 OPENERS=1 CALLERS=1 NAMERS=1 BREAK_NO_REST | assertion violated ((record[token].serial==meant)
list_break_known_at_rest     | fails | SAME OPEN=1 NAMERS=2 CALLERS=1 BREAK_KNOWN_AT_REST_ONLY | assertion violated ((token==255)
break_fairness               | fails | ASYNC=1 SPECIFIC=1 PURGE=1 PINGS UNFAIR | acceptance cycle
TABLE
}

usage() {
    cat <<'TEXT'
Runs one configuration of a model with Spin, and judges what Spin says.

Usage: run.sh NAME [FOLDER]     FOLDER keeps what is made (a temporary one that goes)
       run.sh --reached FOLDER  tells what of the models no configuration of the kinds that hold
                                comes to; each must have run with FOLDER/NAME
       run.sh --list [KIND]     the names of the configurations, or of those of one kind
       run.sh --trail NAME FOLDER
                                steps through the counter-example that a run has left in FOLDER

Examples:
  tests/model/run.sh answered_calls
  tests/model/run.sh hang_reply_uncollected /tmp/m
  tests/model/run.sh --trail hang_reply_uncollected /tmp/m
TEXT
}

fail() {
    printf 'model: %s\n' "$1" >&2
    exit "${2:-1}"
}

names() {
    configurations | awk -F' *[|] *' -v kind="${1:-}" 'NF > 1 && (kind == "" || $2 == kind) { print $1 }'
}

# Reads a configuration into MODEL, KIND, SWITCHES and EXPECTED.
look_up() {
    local name row

    while IFS='|' read -r name row; do
        [[ ${name%% *} == "$1" ]] || continue
        MODEL=connection.pml
        [[ $1 != list_* ]] || MODEL=tokens.pml
        IFS='|' read -r KIND SWITCHES EXPECTED <<<"$row"
        KIND=${KIND//[[:blank:]]/}
        EXPECTED=${EXPECTED:-}
        EXPECTED=${EXPECTED#"${EXPECTED%%[![:blank:]]*}"}
        # shellcheck disable=SC2206 # a list of words
        SWITCHES=($SWITCHES)
        SWITCHES=("${SWITCHES[@]/#/-D}")
        return
    done < <(configurations)
    fail "no configuration \"$1\"; --list names them" 2
}

# ---- Verifying -----------------------------------------------------------------------------------

is_on() {
    [[ " ${SWITCHES[*]} " == *" -D$1 "* ]]
}

# Makes the verifier and runs it, as the kind of the configuration wants it.
verify() {
    # Making the verifier faster takes longer than almost every search gains by it.
    local compile=(-O0 "-DMEMLIM=$MEGABYTES" -DCOLLAPSE)
    local search=("-m$DEPTH")

    if is_on PINGS; then
        compile+=(-DNFAIR=3)
        search+=(-a)
        is_on UNFAIR || search+=(-f)
    elif [[ $KIND == acyclic ]] || is_on CIRCLES; then
        compile+=(-DNP)
        search+=(-l)
    else
        compile+=(-DSAFETY)
    fi
    # Those who may wait for ever do so in no proper place to end.
    ! is_on QUIET || search+=(-E)

    spin -a "${SWITCHES[@]}" "$HERE/$MODEL" >spin.log || fail "Spin does not take the model: $(cat spin.log)"
    gcc "${compile[@]}" -w -o pan pan.c
    ./pan "${search[@]}" >pan.log 2>&1 || fail "the verifier ends with $?: $(cat pan.log)"
    print_figures
}

print_figures() {
    grep -E 'errors:|states, stored|total actual memory|elapsed time' pan.log
}

# ---- Judging -------------------------------------------------------------------------------------

# A search that was cut short has shown nothing.
judge_complete() {
    ! grep -Eiq 'not completed|incomplete|too small|MEMLIM|out of memory|hash table full' pan.log ||
        fail "the search was cut short: $(cat pan.log)"
}

judge_holds() {
    ! grep -q '^pan:1:' pan.log || fail "an error where there must be none: $(cat pan.log)"
    judge_complete
    grep -q 'errors: 0$' pan.log || fail "no \"errors: 0\": $(cat pan.log)"
    note_steps
}

judge_error() {
    grep -qF "pan:1: $1" pan.log || fail "Spin does not say \"$1\": $(cat pan.log)"
    [[ -f $MODEL.trail ]] || fail "no counter-example was written"
}

judge_hang() {
    local stuck

    judge_error "invalid end state"
    stuck=$(stuck_threads)
    [[ $stuck == "$EXPECTED" ]] || fail "not \"$EXPECTED\" wait for ever, but \"$stuck\""
    printf 'For ever waits, as expected: %s\n' "$stuck"
}

replay() {
    spin -k "$MODEL.trail" "$@" "${SWITCHES[@]}" "$HERE/$MODEL"
}

# Who has come to no proper end in the counter-example, without init, which waits for all of them.
stuck_threads() {
    replay | sed -n 's/^ *[0-9]*:\tproc *[0-9]* (\([A-Za-z]\{1,\}\):.*/\1 &/p' |
        grep -v 'valid end state' | awk '{ print $1 }' | sort -u | paste -sd ' '
}

# ---- Steps ---------------------------------------------------------------------------------------

# Writes for each line of the model that has a step "LINE reached" or "LINE unreached"; an inline has
# its steps once in each kind of thread. Spin merges steps, assertions above all, with the one before.
note_steps() {
    { ./pan -d && printf 'END OF STATES\n' && cat pan.log; } |
        awk '/^END OF STATES/ { judging = 1 }
             /^proctype / { thread = $2 }
             /^unreached in proctype/ { thread = $4 }
             !judging && /=> / && !/=> (-end-|\.\(goto\))/ {
                 match($0, /[a-z]+\.pml:[0-9]+/)
                 line[thread, $2] = substr($0, RSTART, RLENGTH)
             }
             judging && match($0, /state [0-9]+,/) {
                 unreached[thread, substr($0, RSTART + 6, RLENGTH - 7)] = 1
             }
             END {
                 for (i in line) print line[i], (i in unreached) ? "unreached" : "reached"
             }' | sort -u >steps.txt
}

# What no run comes to, nothing has been shown of.
judge_reached() {
    local name files=() unreached

    while read -r name; do
        [[ -s $1/$name/steps.txt ]] || fail "$name has not run in $1"
        files+=("$1/$name/steps.txt")
    done < <(names holds && names fair && names acyclic)
    unreached=$(awk '{ seen[$1] = 1 } $2 == "reached" { reached[$1] = 1 }
                     END { for (l in seen) if (!(l in reached)) print l }' "${files[@]}" | sort)
    [[ -z $unreached ]] || fail "nothing comes to $unreached"
    printf 'Every step is reached: those of %d lines of the models\n' \
        "$(awk '{ print $1 }' "${files[@]}" | sort -u | wc -l)"
}

# ---- The run -------------------------------------------------------------------------------------

run_configuration() {
    look_up "$1"
    if (($# > 1)); then
        mkdir -p "$2"
        cd "$2"
    else
        FOLDER=$(mktemp -d)
        trap 'rm -rf "$FOLDER"' EXIT
        cd "$FOLDER"
    fi
    rm -f "$MODEL.trail" steps.txt
    verify
    case $KIND in
    holds | fair | acyclic) judge_holds ;;
    hangs) judge_hang ;;
    fails) judge_error "$EXPECTED" ;;
    *) fail "no kind \"$KIND\"" 2 ;;
    esac
}

show_trail() {
    look_up "$1"
    cd "$2"
    [[ -f $MODEL.trail ]] || fail "no counter-example in $2; run the configuration there first"
    replay -p -g -l
}

main() {
    case ${1:-} in
    --help | -h) usage ;;
    --list) names "${2:-}" ;;
    --reached) judge_reached "${2:?the folder of the runs}" ;;
    --trail) show_trail "${2:?the name}" "${3:?the folder of its run}" ;;
    "" | -*) usage >&2 && exit 2 ;;
    *) run_configuration "$@" ;;
    esac
}

main "$@"
