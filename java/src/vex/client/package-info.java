/**
 * Signs texts and data with the private keys of a store: a PKCS #12 or PEM file, or a token.
 *
 * <ul>
 * <li>{@link vex.client.SigningClient} opens a store and signs. Start here.
 * <li>{@link vex.client.SigningProvider} offers the same stores and keys to programs that use {@code java.security}.
 * <li>{@link vex.client.TimestampSource} gets time stamps, which prove when a signature existed.
 * <li>{@link vex.client.SigningException} tells what went wrong, as a {@link vex.client.SigningException.Reason}.
 * </ul>
 *
 * <h2>Null</h2>
 * No argument and no element of an array may be {@code null}, and no method returns {@code null}, unless its
 * description says so. A {@link NullPointerException} names the parameter.
 *
 * <h2>Fingerprints</h2>
 * A fingerprint is the SHA-256 digest of a certificate's DER form: 64 upper-case hexadecimal digits. Where one is
 * given, lower case and colons between the pairs of digits do not matter.
 *
 * <h2>Errors</h2>
 * What lies outside the program (a missing file, a wrong PIN, an expired certificate) is a checked
 * {@link vex.client.SigningException}. Its message names the thing and contains no PIN and no store URI. Errors of the
 * program are unchecked: {@link NullPointerException}, {@link IllegalArgumentException}, and
 * {@link IllegalStateException} after a close.
 *
 * <h2>Threads and closing</h2>
 * Any thread may use any object of this package at any time, except {@link vex.client.SigningClient.Builder}, which is
 * for one thread at a time. Close what you open: a {@link vex.client.SigningClient} holds its store, and a token's
 * login, until then. Closing does not wait for calls in progress, which finish normally.
 */
package vex.client;
