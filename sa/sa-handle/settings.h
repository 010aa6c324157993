// The settings file, /data/zr-qel-sa.set: the three log switches, for readers outside the agent.
#ifndef SA_SA_HANDLE_SETTINGS_H
#define SA_SA_HANDLE_SETTINGS_H

/**
 * Writes the switches of m_sa_handle. Command reader thread. The agent itself never reads the file.
 *
 * @return 0, also when the file cannot be opened: that is deliberately no failure; -100 when nothing could be written.
 */
long write_setting(void);

#endif
