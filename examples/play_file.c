/* Plays one sound file on player 0 (two channels from system port 0) and
 * waits until it has played out. Build it against an installed library with
 *   cc play_file.c $(pkg-config --cflags --libs zor_play_client) */
#include <stdio.h>
#include <zor_play_client.h>

int main(int argc, char** argv)
{
    zpc_client* client;
    structZorPlayMsg msg;
    int result = argc == 2 ? zpc_open(&client) : ZPC_ERR_ARGUMENT;
    if (result != 0) {
        fprintf(stderr, argc == 2 ? "%s\n" : "usage: play_file FILE\n", zpc_result_text(result));
        return 1;
    }
    const int created = (result = zpc_create(client, eZorPlayPlayer, 0, 2, 0)) == 0;
    if (result == 0)
        result = zpc_setup_play_file(client, 0, argv[1], 0);
    if (result == 0)
        result = zpc_start(client, eZorPlayPlayer, 0);
    /* Progress reports come once a second; the completion ends the wait. */
    while (result == 0 && (result = zpc_poll(client, &msg, 60000)) == 0)
        if (msg.eCmd == eCmdFileCompletion && msg.nIndex == 0 && msg.eType == eZorPlayPlayer) {
            printf("played %s (%u s)\n", msg.payload.fileCompletion.szFilename, msg.payload.fileCompletion.nLength);
            break;
        }
    if (result != 0)
        fprintf(stderr, "%s\n", zpc_result_text(result));
    if (created)
        zpc_delete(client, eZorPlayPlayer, 0);
    zpc_close(client);
    return result == 0 ? 0 : 1;
}
