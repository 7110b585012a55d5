/**
 * The native methods that sign, and their error numbers. {@code vex.client} calls them; new programs use that package.
 */
package vex.jni;
